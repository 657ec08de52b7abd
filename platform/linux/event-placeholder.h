#pragma once

namespace quillon {

/// Where a link at an event's name leads that keeps the name for whoever is to raise the event. It
/// leads nowhere, so that the event does not exist for those who look for it, and in a sticky
/// directory only its owner can put the event in its place. quillon-unit makes such links before
/// each start.
inline constexpr char kEventPlaceholder[] = "/nonexistent/quillon-event-is-not-raised";

}  // namespace quillon
