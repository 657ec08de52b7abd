#pragma once

#include <cstddef>

namespace quillon {

/// One error that the journal's message catalogue explains: packaging/systemd/quillon.catalog.
struct ExplainedMessage
{
    const char* id;          ///< 32 lowercase hexadecimal digits, the same for ever
    const char* formats[4];  ///< its wordings without the place in the code; unused ones are null
    const char* tag = "FWUPDATE";  ///< the part of the program that says it: mostly the service
};

extern const ExplainedMessage kExplainedMessages[];
extern const std::size_t kExplainedMessageCount;

/// Formats that the service logs at the error priority although the step has succeeded. They share
/// one entry of the catalogue.
extern const char kStepId[];
extern const char* const kStepFormats[];
extern const std::size_t kStepFormatCount;

/// The MESSAGE_ID of an error, found by its literal format.
/// @param tag     as given to the log
/// @param format  as given to the log, without the place in the code
/// @return null when the catalogue does not explain this message. Static memory.
/// Thread: any. Never throws.
const char* messageId(const char* tag, const char* format);

}  // namespace quillon
