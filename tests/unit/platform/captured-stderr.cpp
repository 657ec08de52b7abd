#include "captured-stderr.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>

CapturedStderr::CapturedStderr()
    : file_(memfd_create("stderr", MFD_CLOEXEC)), original_(dup(STDERR_FILENO))
{
    if (file_ < 0 || fcntl(file_, F_SETFL, O_APPEND) != 0 || dup2(file_, STDERR_FILENO) < 0) {
        throw std::runtime_error("standard error cannot be captured");
    }
}

CapturedStderr::~CapturedStderr()
{
    const std::string all = text();
    dup2(original_, STDERR_FILENO);
    std::fputs(all.c_str(), stderr);
    close(original_);
    close(file_);
}

std::string CapturedStderr::text() const
{
    std::string all(static_cast<std::size_t>(lseek(file_, 0, SEEK_END)), '\0');
    const ssize_t count = pread(file_, all.data(), all.size(), 0);
    all.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return all;
}

std::vector<std::string> CapturedStderr::lines() const
{
    std::istringstream all(text());
    std::vector<std::string> result;
    for (std::string line; std::getline(all, line);) {
        result.push_back(line);
    }
    return result;
}

void CapturedStderr::clear()
{
    if (ftruncate(file_, 0) != 0) {
        throw std::runtime_error("the captured text cannot be dropped");
    }
}
