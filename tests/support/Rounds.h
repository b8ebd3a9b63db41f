#pragma once

namespace testsupport {

#ifdef NORVO_SANITIZED
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// The tests run on another kind of processor, imitated by a program.
#ifdef NORVO_EMULATED
inline constexpr bool kEmulated = true;
#else
inline constexpr bool kEmulated = false;
#endif

// How many rounds to run: `full`, or a tenth (at least one) under a sanitizer or an emulator.
constexpr int rounds(int full) {
    return kSanitized || kEmulated ? (full < 10 ? 1 : full / 10) : full;
}

}  // namespace testsupport
