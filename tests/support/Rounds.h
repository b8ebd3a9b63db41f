#pragma once

namespace testsupport {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

// How many rounds to run: `full`, or a tenth (at least one) under a sanitizer.
constexpr int rounds(int full) { return kSanitized ? (full < 10 ? 1 : full / 10) : full; }

}  // namespace testsupport
