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

# The install tree (tests/install_check.sh, run inside a test sandbox):
# pkg-config and find_package builds of the example, run paths, the
# installed tool.
if(TARGET install_test)
  set(QVFS_EXAMPLE_CFLAGS "")
  if(QVFS_SANITIZE)
    set(QVFS_EXAMPLE_CFLAGS "-fsanitize=address,undefined")
  endif()
  # A cross build runs the programs through the same emulator as the tests.
  string(REPLACE ";" " " QVFS_EXAMPLE_RUNNER "${CMAKE_CROSSCOMPILING_EMULATOR}")
  set(QVFS_INSTALLED_TOOL 0)
  if(TARGET qvfs-tool)
    set(QVFS_INSTALLED_TOOL 1)
  endif()
  target_compile_definitions(install_test PRIVATE
    QVFS_BUILD_DIR="${CMAKE_BINARY_DIR}" QVFS_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    QVFS_C_COMPILER="${CMAKE_C_COMPILER}" QVFS_INSTALL_LIBDIR="${CMAKE_INSTALL_LIBDIR}"
    QVFS_EXTRA_CFLAGS="${QVFS_EXAMPLE_CFLAGS}" QVFS_EXAMPLE_RUNNER="${QVFS_EXAMPLE_RUNNER}"
    QVFS_TOOLCHAIN_FILE="${CMAKE_TOOLCHAIN_FILE}" QVFS_INSTALLED_TOOL="${QVFS_INSTALLED_TOOL}")
  # Everything `cmake --install` copies must be built.
  foreach(t qvfs qvfs_static qvfs-demo qvfs-tool)
    if(TARGET ${t})
      add_dependencies(install_test ${t})
    endif()
  endforeach()
endif()

# The package retries and the System V listing that CI relies on.
add_test(NAME ci_scripts COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/ci_scripts_check.sh)

# The demo, run briefly inside a test sandbox.
if(TARGET api_demo_test AND TARGET qvfs-demo)
  string(REPLACE ";" " " QVFS_DEMO_RUNNER "${CMAKE_CROSSCOMPILING_EMULATOR}")
  target_compile_definitions(api_demo_test PRIVATE
    QVFS_DEMO_PATH="$<TARGET_FILE:qvfs-demo>" QVFS_EXAMPLE_RUNNER="${QVFS_DEMO_RUNNER}")
  add_dependencies(api_demo_test qvfs-demo)
endif()

# The qvfs tool's tests run the built program (QVFS_TOOL_PATH) and read its
# JSON output. Where the tool is not built (its packages missing for the
# target) they compile to a skip.
if(TARGET qvfs-tool)
  find_package(nlohmann_json QUIET)
  # A cross build runs the tool through the same emulator as the tests.
  string(REPLACE ";" " " QVFS_TOOL_RUNNER "${CMAKE_CROSSCOMPILING_EMULATOR}")
  foreach(t cli_test)
    if(TARGET ${t} AND nlohmann_json_FOUND)
      target_compile_definitions(${t} PRIVATE QVFS_TOOL_PATH="$<TARGET_FILE:qvfs-tool>"
                                 QVFS_TOOL_RUNNER="${QVFS_TOOL_RUNNER}")
      target_link_libraries(${t} PRIVATE nlohmann_json::nlohmann_json)
      add_dependencies(${t} qvfs-tool)
    endif()
  endforeach()
endif()

# The FUSE view's test runs where the tool has the view.
if(TARGET cli_test AND QVFS_FUSE3_INCLUDE_DIR AND QVFS_FUSE3_LIBRARY)
  target_compile_definitions(cli_test PRIVATE QVFS_TOOL_FUSE)
endif()
