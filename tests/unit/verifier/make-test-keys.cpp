// make-test-keys DIR...: new keys in each directory.

#include <exception>
#include <iostream>

#include "tools/quillon-image/keys.h"

int main(int argc, char** argv)
{
    try {
        for (int i = 1; i < argc; ++i) {
            quillon::createKeys(argv[i], true);
        }
    } catch (const std::exception& error) {
        std::cerr << "make-test-keys: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
