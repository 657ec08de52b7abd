#include "unit/platform/journal-socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

constexpr char kPath[] = "/run/systemd/journal/socket";

std::filesystem::path directory()
{
    return std::filesystem::path(kPath).parent_path();
}

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// The journal keeps every value of a field that comes twice, which no field should.
void add(JournalEntry& entry, const std::string& name, const std::string& value)
{
    if (!entry.emplace(name, value).second) {
        entry[name] += " and " + value;
    }
}

// NAME=VALUE and a newline; or, for a value that holds newlines: NAME, a newline, the length in
// eight bytes, little endian, VALUE and a newline.
JournalEntry entryIn(const std::string& packet)
{
    JournalEntry entry;
    for (std::size_t at = 0; at < packet.size();) {
        const std::size_t end = packet.find('\n', at);
        const std::string field = packet.substr(at, end - at);
        at = end + 1;
        const std::size_t sign = field.find('=');
        if (sign != std::string::npos) {
            add(entry, field.substr(0, sign), field.substr(sign + 1));
            continue;
        }
        std::uint64_t length = 0;
        if (packet.size() - at < sizeof length) {
            throw std::runtime_error("a journal entry ends early");
        }
        std::memcpy(&length, packet.data() + at, sizeof length);
        at += sizeof length;
        const auto size = static_cast<std::size_t>(length);
        add(entry, field, packet.substr(at, size));
        at += size + 1;
    }
    return entry;
}

std::string contentsOf(int file)
{
    struct stat status = {};
    if (fstat(file, &status) != 0) {
        fail("fstat");
    }
    // The journal takes no file that its sender could still change.
    if (fcntl(file, F_GET_SEALS) != (F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE)) {
        throw std::runtime_error("a journal entry in a file without seals");
    }
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    if (pread(file, bytes.data(), bytes.size(), 0) != status.st_size) {
        fail("pread");
    }
    return bytes;
}

// @return whether there was a packet
bool receive(int from, std::string& packet)
{
    packet.assign(1 << 20, '\0');
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    iovec piece = {packet.data(), packet.size()};
    msghdr message = {};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t size = recvmsg(from, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (size < 0) {
        return false;
    }
    packet.resize(static_cast<std::size_t>(size));
    const cmsghdr* attached = CMSG_FIRSTHDR(&message);
    if (attached != nullptr && attached->cmsg_type == SCM_RIGHTS) {
        int file = -1;
        std::memcpy(&file, CMSG_DATA(attached), sizeof file);
        packet = contentsOf(file);
        close(file);
    }
    return true;
}

}  // namespace

bool JournalSocket::available()
{
    return !std::filesystem::exists(kPath);
}

JournalSocket::JournalSocket()
    : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), end_(eventfd(0, EFD_CLOEXEC))
{
    madeDirectory_ = std::filesystem::create_directories(directory());
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kPath, sizeof kPath);
    if (socket_ < 0 || end_ < 0 ||
        bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail(kPath);
    }
    reader_ = std::thread(&JournalSocket::readUntilCrash, this);
}

JournalSocket::~JournalSocket()
{
    crash();
    close(end_);
    unlink(kPath);
    if (madeDirectory_) {
        std::error_code ignored;
        std::filesystem::remove(directory(), ignored);
    }
}

void JournalSocket::crash()
{
    if (!reader_.joinable()) {
        return;
    }
    eventfd_write(end_, 1);
    reader_.join();
    close(socket_);
}

std::vector<JournalEntry> JournalSocket::take(std::size_t atLeast)
{
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, std::chrono::seconds(5),
                      [this, atLeast] { return entries_.size() >= atLeast; });
    return std::exchange(entries_, {});
}

void JournalSocket::readUntilCrash()
{
    std::string packet;
    pollfd watched[] = {{socket_, POLLIN, 0}, {end_, POLLIN, 0}};
    while (poll(watched, 2, -1) > 0 && watched[1].revents == 0) {
        if (receive(socket_, packet)) {
            const std::lock_guard<std::mutex> lock(mutex_);
            entries_.push_back(entryIn(packet));
            arrived_.notify_all();
        }
    }
}
