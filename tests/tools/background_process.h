#pragma once
// A tool run in the background for the suites that talk to it while it runs
// (an HTTP server): started through the shell with its output in a file,
// stopped with SIGTERM.

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace vq_test {

class background_process {
public:
    // Runs `command` with /bin/sh; standard output and error go to outputPath.
    background_process(const std::string& command, const std::string& outputPath) : m_outputPath(outputPath) {
        m_pid = fork();
        if (m_pid == 0) {
            setpgid(0, 0);
            const std::string line = "exec " + command + " >" + outputPath + " 2>&1";
            execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~background_process() { stop(); }
    background_process(const background_process&) = delete;
    background_process& operator=(const background_process&) = delete;

    bool started() const { return m_pid > 0; }
    // The tool's own process: the command is exec'ed, so the shell's pid is the tool's.
    pid_t pid() const { return m_pid; }

    // SIGTERM, then the exit status (-1 when it did not exit by itself in 20 s).
    int stop() {
        if (m_pid <= 0)
            return m_status;
        kill(m_pid, SIGTERM);
        int status = 0;
        for (int i = 0; i < 200; ++i) {
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
                m_pid = -1;
                return m_status;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return m_status = -1;
    }

    std::string output() const {
        std::ifstream in(m_outputPath);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    pid_t m_pid = -1;
    int m_status = -1;
    std::string m_outputPath;
};

// A loopback TCP port free at the moment of the call.
inline int free_loopback_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0)
        port = ntohs(address.sin_port);
    if (fd >= 0)
        close(fd);
    return port;
}

// Calls `condition` every 200 ms until it holds or `seconds` pass.
inline bool wait_for(const std::function<bool()>& condition, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return condition();
}

}  // namespace vq_test
