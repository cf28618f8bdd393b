#pragma once
// HTTP requests from the suites through the curl command-line client.

#include <string>

#include "tools/tool_runner.h"

namespace vq_test {

struct http_reply {
    int status = 0;  // 0: no answer
    std::string body;
};

// Fetches url; `options` are more curl options (-X POST, -H ...).
inline http_reply http_fetch(const std::string& url, const std::string& options = std::string()) {
    const tool_result result = run_tool("curl -s -m 10 -o - -w '\\n%{http_code}' " + options + " " + shell_quote(url));
    http_reply reply;
    const auto newline = result.output.rfind('\n');
    if (newline == std::string::npos)
        return reply;
    reply.status = std::atoi(result.output.c_str() + newline + 1);
    reply.body = result.output.substr(0, newline);
    return reply;
}

}  // namespace vq_test
