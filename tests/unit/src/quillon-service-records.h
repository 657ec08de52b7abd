/// Records of the control channel as the tests expect them: byte for byte, at the offsets that
/// clients rely on.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>

namespace quillon::test {

inline constexpr std::size_t kRecordSize = 284;

/// One record as it travels.
struct Record
{
    std::array<unsigned char, kRecordSize> bytes{};

    std::int32_t at(std::size_t offset) const
    {
        std::int32_t value = 0;
        std::memcpy(&value, &bytes.at(offset), sizeof(value));
        return value;
    }
    void set(std::size_t offset, std::int32_t value)
    {
        std::memcpy(&bytes.at(offset), &value, sizeof(value));
    }

    std::int32_t command() const { return at(0); }
    std::int32_t result() const { return at(4); }
    std::int32_t value() const { return at(268); }
};

inline bool operator==(const Record& one, const Record& other)
{
    return one.bytes == other.bytes;
}

inline std::ostream& operator<<(std::ostream& out, const Record& record)
{
    out << "record{command " << record.at(0) << ", result " << record.at(4) << ", kind "
        << record.at(8) << ", value " << record.at(268);
    for (std::size_t i = 12; i < kRecordSize; ++i) {
        if (record.bytes[i] != 0 && (i < 268 || i >= 272)) {
            return out << ", byte " << i << " = " << int{record.bytes[i]} << " ...}";
        }
    }
    return out << "}";
}

/// A command, zero but for its code.
inline Record command(std::int32_t code)
{
    Record record;
    record.set(0, code);
    return record;
}

/// Command 8 with that path, terminated and zero-filled where it is shorter than the field.
inline Record pathCommand(const std::string& path)
{
    Record record = command(8);
    std::memcpy(&record.bytes[12], path.data(), std::min<std::size_t>(path.size(), 256));
    return record;
}

/// A reply of the service.
inline Record reply(std::int32_t result, std::int32_t value = 0)
{
    Record record = command(3);
    record.set(4, result);
    record.set(8, 8);
    record.set(268, value);
    return record;
}

/// What the service sends to itself in order to stop.
inline Record stopRecord()
{
    Record record = command(4);
    record.set(4, -1);
    record.set(8, 8);
    return record;
}

}  // namespace quillon::test
