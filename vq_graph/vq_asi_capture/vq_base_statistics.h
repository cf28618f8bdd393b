#pragma once
// Read-only view of a statistics object: an ordered list of (name, value) texts.

#include <string>
#include <utility>
#include <vector>

class vq_base_statistics {
public:
    virtual ~vq_base_statistics() = default;

    virtual std::vector<std::pair<std::string, std::string>> get_items() const = 0;
};
