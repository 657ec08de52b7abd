#include "helpers/mount/parse-request.h"

#include <algorithm>

namespace quillon::privileged {

namespace {

bool isFieldCharacter(char c)
{
    return c >= '!' && c <= '~';
}

/// Eats a text from its beginning; after a failure it eats nothing any more.
class Eater
{
public:
    explicit Eater(std::string_view text) : rest_(text) {}

    Eater& literal(std::string_view expected)
    {
        fine_ = fine_ && rest_.substr(0, expected.size()) == expected;
        rest_.remove_prefix(fine_ ? expected.size() : 0);
        return *this;
    }

    Eater& field(std::string_view& found)
    {
        const auto* end = std::find_if_not(rest_.begin(), rest_.end(), isFieldCharacter);
        const auto length = static_cast<std::size_t>(end - rest_.begin());
        fine_ = fine_ && length > 0;
        found = rest_.substr(0, length);
        rest_.remove_prefix(fine_ ? length : 0);
        return *this;
    }

    bool atEnd() const { return fine_ && rest_.empty(); }

private:
    std::string_view rest_;
    bool fine_ = true;
};

}  // namespace

std::optional<MountFields> parseMount(std::string_view text)
{
    MountFields fields;
    Eater eater(text);
    eater.literal("-o ").field(fields.options);
    eater.literal(" ").field(fields.image);
    eater.literal(" ").field(fields.directory);
    return eater.atEnd() ? std::optional(fields) : std::nullopt;
}

std::optional<NodeFields> parseNode(std::string_view text)
{
    NodeFields fields;
    Eater eater(text);
    eater.literal("-m ").field(fields.mode);
    eater.literal(" -Z ").field(fields.label);
    eater.literal(" ").field(fields.node);
    eater.literal("  b ").field(fields.major);
    eater.literal(" ").field(fields.minor);
    return eater.atEnd() ? std::optional(fields) : std::nullopt;
}

}  // namespace quillon::privileged
