#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/fd.h"

/// Files with a JSON object a line, to which the service adds. Thread: any.
namespace quillon {

/// Makes a JSON object on one line. Throws std::exception.
class Line
{
public:
    /// Members are written in the order in which they are added, keys as they are.
    /// @{
    Line& add(const char* key, const std::string& text);
    Line& add(const char* key, std::int64_t number);
    /// @param json  written as it is
    Line& addJson(const char* key, const std::string& json);
    /// @}

    /// @return the object with the line's end
    std::string ended() const { return text_ + "}\n"; }

private:
    std::string text_;
};

/// Opens a file to add to it. It should be closed before a module is called: one that closes a
/// descriptor twice must not have a line written into a file of its own.
/// @param flags        O_WRONLY or O_RDWR, and more for open
/// @param[out] opened  what the file is; undefined if not opened
/// @return none for what is not there, no regular file, or a link. Never throws.
UniqueFd openForLines(const std::string& path, int flags, struct stat& opened);

/// Room for more lines in a file's last page. The page is mapped, so adding a line takes no system
/// call, and no descriptor is open that a module could close. Until it is used, the room is blanks
/// in front of the last line's end. So the file holds only whole lines at any time, even when the
/// process is killed; the last may be blank. Nobody else may write to the file.
/// Thread: one at a time. Only open() throws.
class MappedRoom
{
public:
    MappedRoom() = default;
    ~MappedRoom() { drop(); }
    MappedRoom(const MappedRoom&) = delete;
    MappedRoom& operator=(const MappedRoom&) = delete;

    /// Appends lines, and blanks up to the end of a page, and maps that page. If it cannot be
    /// mapped, there is no room. Maps no file of another user: that user could shorten it, and
    /// touching the page would end the program. Throws std::bad_alloc.
    /// @param lines  not empty
    /// @return whether all of them have been written
    bool open(const std::string& path, const std::string& lines);

    /// @return false, and nothing is written, if there is no room
    bool add(const std::string& line) noexcept;

    /// Cuts the blanks that are left off the file, and unmaps the page.
    void close(const std::string& path) noexcept;

    /// Unmaps the page, and leaves the file as it is.
    void drop() noexcept;

private:
    char* page_ = nullptr;      ///< the file's last; null without room
    std::size_t pageSize_ = 0;  ///< in bytes
    std::size_t end_ = 0;       ///< place of the last line's end in the page, without the blanks
    off_t fileSize_ = 0;
};

}  // namespace quillon
