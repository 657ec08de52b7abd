#include "support/record-file.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "base/replace-file.h"

namespace quillon {
namespace {

constexpr mode_t kMode = 0644;

}  // namespace

Line& Line::add(const char* key, const std::string& text)
{
    return addJson(key, Json::valueToQuotedString(text.c_str()));
}

Line& Line::add(const char* key, std::int64_t number)
{
    return addJson(key, std::to_string(number));
}

Line& Line::addJson(const char* key, const std::string& json)
{
    text_ += text_.empty() ? "{\"" : ",\"";
    text_ += key;
    text_ += "\":";
    text_ += json;
    return *this;
}

UniqueFd openForLines(const std::string& path, int flags, struct stat& opened)
{
    constexpr int kFlags = O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    UniqueFd file(open(path.c_str(), kFlags | flags, kMode));
    if (file && (fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode))) {
        file.reset();
    }
    if (file && (flags & O_CREAT) != 0 && opened.st_size == 0) {
        static_cast<void>(fchmod(file.get(), kMode));  // whatever the umask
    }
    return file;
}

bool MappedRoom::open(const std::string& path, const std::string& lines)
{
    drop();
    struct stat status = {};
    const UniqueFd file = openForLines(path, O_RDWR, status);
    if (!file) {
        return false;
    }
    if (status.st_uid != geteuid()) {
        return writeAll(file.get(), lines.data(), lines.size());
    }
    pageSize_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t used = static_cast<std::size_t>(status.st_size) + lines.size();
    const std::size_t pages = (used + pageSize_ - 1) / pageSize_;
    std::string padded = lines;
    padded.insert(lines.size() - 1, pages * pageSize_ - used, ' ');
    if (!writeAll(file.get(), padded.data(), padded.size())) {
        return false;
    }
    fileSize_ = static_cast<off_t>(pages * pageSize_);
    end_ = used - 1 - (pages - 1) * pageSize_;
    void* page = mmap(nullptr, pageSize_, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(),
                      fileSize_ - static_cast<off_t>(pageSize_));
    page_ = page != MAP_FAILED ? static_cast<char*>(page) : nullptr;
    return true;
}

bool MappedRoom::add(const std::string& line) noexcept
{
    if (page_ == nullptr || end_ + line.size() >= pageSize_) {
        return false;
    }
    // As long as the line before has no end here, readers pass over what follows it: they look for
    // one object in a line.
    std::memcpy(page_ + end_ + 1, line.data(), line.size() - 1);
    __atomic_store_n(page_ + end_, '\n', __ATOMIC_RELEASE);
    end_ += line.size();
    return true;
}

void MappedRoom::close(const std::string& path) noexcept
{
    if (page_ == nullptr) {
        return;
    }
    struct stat status = {};
    const UniqueFd file = openForLines(path, O_WRONLY, status);
    if (file && status.st_size == fileSize_) {
        page_[end_] = '\n';
        const off_t blanks = static_cast<off_t>(pageSize_ - 1 - end_);
        if (ftruncate(file.get(), fileSize_ - blanks) != 0 && blanks != 0) {
            page_[end_] = ' ';
        }
    }
    drop();
}

void MappedRoom::drop() noexcept
{
    if (page_ != nullptr) {
        munmap(page_, pageSize_);
        page_ = nullptr;
    }
}

}  // namespace quillon
