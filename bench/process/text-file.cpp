#include "process/text-file.h"

#include <fstream>
#include <iterator>
#include <stdexcept>

namespace quillon::bench {

std::string readFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error(path + " cannot be read");
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) {
        throw std::runtime_error(path + " cannot be written");
    }
}

}  // namespace quillon::bench
