#pragma once

namespace testsupport {

#ifdef NORVO_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// How many rounds to run: `full`, or a tenth (at least one) under a sanitizer.
constexpr int rounds(int full) { return kSanitized ? (full < 10 ? 1 : full / 10) : full; }

}  // namespace testsupport
