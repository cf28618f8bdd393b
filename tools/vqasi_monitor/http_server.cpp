#include "http_server.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cstring>

#include "port_report.h"

namespace {

constexpr unsigned kMaxConnections = 32;
constexpr unsigned kMaxConnectionsPerAddress = 8;
constexpr size_t kConnectionMemory = 16 * 1024;  // a request (line and headers) larger than this is refused
constexpr unsigned kTimeoutSeconds = 10;

MHD_Result reply(MHD_Connection* connection, unsigned status, const std::string& body, const char* type) {
    MHD_Response* response =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED)
        MHD_add_response_header(response, MHD_HTTP_HEADER_ALLOW, "GET");
    const MHD_Result result = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return result;
}

// "127.0.0.1:9550" or "[::1]:9550" into a socket address.
bool parse_listen(const std::string& listen, sockaddr_storage& address, std::string& error) {
    std::memset(&address, 0, sizeof address);
    const auto colon = listen.rfind(':');
    std::string host = colon == std::string::npos ? std::string() : listen.substr(0, colon);
    const std::string portText = colon == std::string::npos ? std::string() : listen.substr(colon + 1);
    char* end = nullptr;
    const long port = std::strtol(portText.c_str(), &end, 10);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
    if (!portText.empty() && *end == '\0' && port >= 0 && port <= 65535) {
        if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
            v4->sin_family = AF_INET;
            v4->sin_port = htons(static_cast<uint16_t>(port));
            return true;
        }
        if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
            v6->sin6_family = AF_INET6;
            v6->sin6_port = htons(static_cast<uint16_t>(port));
            return true;
        }
    }
    error = "--listen takes ADDRESS:PORT (127.0.0.1:9550, [::1]:9550), not \"" + listen + "\"";
    return false;
}

MHD_Result on_request(void* self, MHD_Connection* connection, const char* url, const char* method, const char*,
                      const char*, size_t* uploadSize, void** state) {
    // The first call only announces the request; a body is never wanted.
    if (!*state) {
        *state = self;
        if (std::strcmp(method, MHD_HTTP_METHOD_GET) == 0)
            return MHD_YES;
    }
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 || *uploadSize != 0) {
        *uploadSize = 0;
        return reply(connection, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET\n", "text/plain");
    }
    return static_cast<http_server*>(self)->answer(connection, url) == MHD_YES ? MHD_YES : MHD_NO;
}

}  // namespace

http_server::~http_server() {
    if (m_daemon)
        MHD_stop_daemon(m_daemon);
}

bool http_server::start(const std::string& listen, std::string& error) {
    sockaddr_storage address;
    if (!parse_listen(listen, address, error))
        return false;
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD;
    if (address.ss_family == AF_INET6)
        flags |= MHD_USE_IPv6;
    m_daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &on_request, this, MHD_OPTION_SOCK_ADDR,
                                reinterpret_cast<sockaddr*>(&address), MHD_OPTION_CONNECTION_LIMIT, kMaxConnections,
                                MHD_OPTION_PER_IP_CONNECTION_LIMIT, kMaxConnectionsPerAddress,
                                MHD_OPTION_CONNECTION_MEMORY_LIMIT, kConnectionMemory, MHD_OPTION_CONNECTION_TIMEOUT,
                                kTimeoutSeconds, MHD_OPTION_END);
    if (!m_daemon) {
        error = "cannot serve HTTP on " + listen + " (address in use or not local?)";
        return false;
    }
    return true;
}

int http_server::port() const {
    const MHD_DaemonInfo* info = m_daemon ? MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_BIND_PORT) : nullptr;
    return info ? info->port : 0;
}

int http_server::answer(MHD_Connection* connection, const std::string& url) {
    if (url == "/metrics")
        return reply(connection, MHD_HTTP_OK, prometheus_metrics(m_source()),
                     "text/plain; version=0.0.4; charset=utf-8");
    if (url == "/api/v1/ports") {
        nlohmann::json ports = nlohmann::json::array();
        for (const auto& port : m_source())
            ports.push_back(port_json(port));
        return reply(connection, MHD_HTTP_OK, nlohmann::json{{"ports", ports}}.dump(2) + "\n", "application/json");
    }
    if (url == "/healthz")
        return reply(connection, MHD_HTTP_OK, "ok\n", "text/plain");
    return reply(connection, MHD_HTTP_NOT_FOUND, "not found\n", "text/plain");
}
