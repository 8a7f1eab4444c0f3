// Stands for an encoder: what it reads it writes to standard output, to the byte.

#include <cstdio>
#include <fcntl.h>
#include <io.h>

int main() {
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    for (int byte = 0; (byte = std::getchar()) != EOF;) {
        std::putchar(byte);
    }
}
