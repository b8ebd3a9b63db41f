#pragma once

#include <cstdio>
#include <memory>

namespace vcctl {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
// Owns an open file of the C library.
using File = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace vcctl
