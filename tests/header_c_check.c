/* Compiled as C99 with -pedantic: the public header must stay plain C. */
#include <qvfs.h>

int main(void) {
    TQvfsOpenParam p = {0};
    TQvFileStat st;
    st.st.st_size = 0;
    (void)p;
    (void)st;
    return (int)sizeof(TQvFileStat) == 232 ? 0 : 1;
}
