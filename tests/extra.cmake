# Checks on the built artefacts rather than on behaviour.

# The public header compiles as strict C99 and the records keep their sizes.
add_executable(header_c_check ${CMAKE_CURRENT_SOURCE_DIR}/header_c_check.c)
target_include_directories(header_c_check PRIVATE ${CMAKE_SOURCE_DIR}/api ${CMAKE_SOURCE_DIR}/common)
set_target_properties(header_c_check PROPERTIES C_STANDARD 99 C_EXTENSIONS OFF)
target_compile_options(header_c_check PRIVATE -Wall -Wextra -pedantic)
add_test(NAME header_compiles_as_c99 COMMAND header_c_check)

# Exported surface of libqvfs.so: the named C functions, nothing mangled.
add_test(NAME exported_symbols
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/check_exports.sh $<TARGET_FILE:qvfs> ${CMAKE_SOURCE_DIR})
