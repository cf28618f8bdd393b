#pragma once
// Runs a command line through the shell and collects what it prints, for the
// suites that test the command-line tools.

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace vq_test {

struct tool_result {
    int status = -1;     // exit status, or -1 when the command did not exit normally
    std::string output;  // standard output (and standard error when merged)

    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        std::istringstream in(output);
        for (std::string line; std::getline(in, line);)
            out.push_back(line);
        return out;
    }
};

// Quotes a word for the shell.
inline std::string shell_quote(const std::string& word) {
    std::string out = "'";
    for (const char c : word)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Runs `command` with /bin/sh; standard error goes along with standard output
// when mergeStderr is set, and is left to the terminal otherwise.
inline tool_result run_tool(const std::string& command, bool mergeStderr = false) {
    tool_result result;
    FILE* pipe = popen((command + (mergeStderr ? " 2>&1" : "")).c_str(), "r");
    if (!pipe)
        return result;
    std::array<char, 65536> chunk;
    for (size_t got; (got = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0;)
        result.output.append(chunk.data(), got);
    const int status = pclose(pipe);
    if (status != -1 && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    return result;
}

}  // namespace vq_test
