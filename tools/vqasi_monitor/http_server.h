#pragma once
// The monitor's read-only HTTP side (libmicrohttpd, its own thread): GET
// /metrics, /api/v1/ports and /healthz; other methods 405, other paths 404;
// connections and request sizes bounded by the library.

#include <functional>
#include <string>
#include <vector>

#include "monitor_port.h"

struct MHD_Daemon;
struct MHD_Connection;

class http_server {
public:
    using snapshot_source = std::function<std::vector<port_snapshot>()>;

    explicit http_server(snapshot_source source) : m_source(std::move(source)) {}
    ~http_server();
    http_server(const http_server&) = delete;
    http_server& operator=(const http_server&) = delete;

    // Listens on ADDR:PORT ("[::1]:9550" for IPv6); false with error.
    bool start(const std::string& listen, std::string& error);
    // The port bound (the one chosen by the system for port 0).
    int port() const;
    // Queues the answer to a GET of url.
    int answer(MHD_Connection* connection, const std::string& url);

private:
    snapshot_source m_source;
    MHD_Daemon* m_daemon = nullptr;
};
