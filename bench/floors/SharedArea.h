// A mapped shared-memory object of the benchmark.
#pragma once

#include <cstddef>
#include <string>

namespace bench {

// The creator makes the object zero-filled and removes its name at the end.
class SharedArea {
public:
    SharedArea(const std::string& name, std::size_t size, bool create);
    ~SharedArea();
    SharedArea(const SharedArea&) = delete;
    SharedArea& operator=(const SharedArea&) = delete;

    void* address() const { return m_address; }

private:
    std::string m_name;
    std::size_t m_size;
    bool m_created;
    void* m_address = nullptr;
};

}  // namespace bench
