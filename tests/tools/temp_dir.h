#pragma once
// A directory under /tmp for one test's files, removed with everything in it.

#include <stdlib.h>

#include <string>
#include <vector>

#include "tools/tool_runner.h"

namespace vq_test {

struct temp_dir {
    // `prefix` names the directory: /tmp/PREFIX-XXXXXX; path is empty when it cannot be made.
    explicit temp_dir(const std::string& prefix) {
        std::string pattern = "/tmp/" + prefix + "-XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        path = mkdtemp(name.data()) ? name.data() : "";
    }
    ~temp_dir() {
        if (!path.empty())
            run_tool("rm -rf " + shell_quote(path));
    }
    temp_dir(const temp_dir&) = delete;
    temp_dir& operator=(const temp_dir&) = delete;

    std::string path;
};

}  // namespace vq_test
