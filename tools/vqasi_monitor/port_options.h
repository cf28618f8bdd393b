#pragma once
// The ports of a vqasi-monitor (one capture board each) and the monitor's own
// settings, read from --port specifications or a GLib key file.

#include <string>
#include <vector>

struct port_options {
    std::string name;
    std::string device = "/dev/video0";
    int inputType = 0;
    int plp = 0;
    std::string udp;         // HOST:PORT, or empty
    std::string srt;         // srt:// URI, or empty
    std::string output;      // file, or empty
    std::string sourceName;  // alarm source; the port name when empty
};

struct monitor_settings {
    std::vector<port_options> ports;
    std::string listen = "127.0.0.1:9550";  // "none": no HTTP server
    int retrySeconds = 5;
    int maxPids = 64;
};

// Reads "NAME=DEVICE[,key=value...]" into port; false with error set.
bool parse_port_spec(const std::string& spec, port_options& port, std::string& error);

// Reads a key file ([monitor] group, one [port NAME] group a port) into
// settings; false with error naming the file, the line where GLib gives it,
// and the key.
bool load_config_file(const std::string& path, monitor_settings& settings, std::string& error);

// Checks one port's values; false with error naming the port and the key.
bool check_port(const port_options& port, std::string& error);

// Splits "HOST:PORT"; false when it is not one.
bool split_host_port(const std::string& text, std::string& host, int& port);
