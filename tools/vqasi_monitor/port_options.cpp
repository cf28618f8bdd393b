#include "port_options.h"

#include <glib.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "mpegcore/MpegConstants.h"

namespace {

bool parse_int(const std::string& text, int low, int high, int& value) {
    if (text.empty())
        return false;
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || v < low || v > high)
        return false;
    value = static_cast<int>(v);
    return true;
}

// Sets one port key from its text; false with error naming the key.
bool set_port_key(port_options& port, const std::string& key, const std::string& value, std::string& error) {
    if (key == "device")
        port.device = value;
    else if (key == "input-type") {
        if (!parse_int(value, 0, 1, port.inputType)) {
            error = "key input-type: 0 or 1, not \"" + value + "\"";
            return false;
        }
    } else if (key == "plp") {
        if (!parse_int(value, 0, 255, port.plp)) {
            error = "key plp: 0 to 255, not \"" + value + "\"";
            return false;
        }
    } else if (key == "udp")
        port.udp = value;
    else if (key == "srt")
        port.srt = value;
    else if (key == "output")
        port.output = value;
    else if (key == "source-name")
        port.sourceName = value;
    else {
        error = "unknown key " + key;
        return false;
    }
    return true;
}

// Line of the key in the file, as GLib does not tell it for a value error.
int line_of_key(const std::string& path, const std::string& group, const std::string& key) {
    gchar* text = nullptr;
    if (!g_file_get_contents(path.c_str(), &text, nullptr, nullptr))
        return 0;
    gchar** lines = g_strsplit(text, "\n", -1);
    g_free(text);
    int found = 0;
    bool inGroup = false;
    for (int i = 0; lines[i] && !found; ++i) {
        std::string line = g_strstrip(lines[i]);
        if (!line.empty() && line[0] == '[')
            inGroup = line == "[" + group + "]";
        else if (inGroup && line.compare(0, key.size(), key) == 0) {
            const std::string rest = g_strchug(&line[key.size()]);
            if (!rest.empty() && rest[0] == '=')
                found = i + 1;
        }
    }
    g_strfreev(lines);
    return found;
}

std::string where(const std::string& path, const std::string& group, const std::string& key) {
    const int line = line_of_key(path, group, key);
    return path + (line > 0 ? ":" + std::to_string(line) : std::string()) + ": [" + group + "] ";
}

}  // namespace

bool split_host_port(const std::string& text, std::string& host, int& port) {
    const auto colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || !parse_int(text.substr(colon + 1), 0, 65535, port))
        return false;
    host = text.substr(0, colon);
    return true;
}

bool check_port(const port_options& port, std::string& error) {
    std::string host;
    int number = 0;
    if (port.name.empty() || port.name.find_first_of("\"\\\n") != std::string::npos)
        error = "port name \"" + port.name + "\": empty or with quotes, backslashes or newlines";
    else if (port.device.empty())
        error = "port " + port.name + ": key device is empty";
    else if (!port.udp.empty() && (!split_host_port(port.udp, host, number) || number == 0))
        error = "port " + port.name + ": key udp takes HOST:PORT, not \"" + port.udp + "\"";
    else if (!port.srt.empty() && port.srt.compare(0, 6, "srt://") != 0)
        error = "port " + port.name + ": key srt takes an srt:// URI, not \"" + port.srt + "\"";
    return error.empty();
}

bool parse_port_spec(const std::string& spec, port_options& port, std::string& error) {
    gchar** fields = g_strsplit(spec.c_str(), ",", -1);
    bool ok = true;
    for (int i = 0; fields[i] && ok; ++i) {
        const std::string field = fields[i];
        const auto equals = field.find('=');
        if (equals == std::string::npos) {
            error = "--port " + spec + ": \"" + field + "\" is not KEY=VALUE";
            ok = false;
        } else if (i == 0) {
            port.name = field.substr(0, equals);
            port.device = field.substr(equals + 1);
        } else if (!set_port_key(port, field.substr(0, equals), field.substr(equals + 1), error)) {
            error = "--port " + spec + ": " + error;
            ok = false;
        }
    }
    g_strfreev(fields);
    if (ok && !check_port(port, error))
        ok = false;
    return ok;
}

bool load_config_file(const std::string& path, monitor_settings& settings, std::string& error) {
    std::unique_ptr<GKeyFile, void (*)(GKeyFile*)> file(g_key_file_new(), g_key_file_free);
    GError* gerror = nullptr;
    if (!g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, &gerror)) {
        // GLib's parse errors name the line ("Key file contains line 3 ...").
        error = path + ": " + (gerror ? gerror->message : "cannot be read");
        g_clear_error(&gerror);
        return false;
    }
    gsize groupCount = 0;
    gchar** groups = g_key_file_get_groups(file.get(), &groupCount);
    bool ok = true;
    for (gsize g = 0; g < groupCount && ok; ++g) {
        const std::string group = groups[g];
        const bool isPort = group.compare(0, 5, "port ") == 0;
        if (!isPort && group != "monitor") {
            error = path + ": unknown group [" + group + "] (use [monitor] and [port NAME])";
            ok = false;
            break;
        }
        port_options port;
        port.name = isPort ? group.substr(5) : std::string();
        gchar** keys = g_key_file_get_keys(file.get(), groups[g], nullptr, nullptr);
        for (int k = 0; keys && keys[k] && ok; ++k) {
            const std::string key = keys[k];
            gchar* raw = g_key_file_get_string(file.get(), groups[g], keys[k], nullptr);
            const std::string value = raw ? raw : "";
            g_free(raw);
            std::string problem;
            if (isPort)
                set_port_key(port, key, value, problem);
            else if (key == "listen")
                settings.listen = value;
            else if (key == "retry-seconds") {
                if (!parse_int(value, 1, 3600, settings.retrySeconds))
                    problem = "key retry-seconds: 1 to 3600, not \"" + value + "\"";
            } else if (key == "max-pids") {
                if (!parse_int(value, 1, static_cast<int>(mpegcore::kPidCount), settings.maxPids))
                    problem = "key max-pids: 1 to " + std::to_string(mpegcore::kPidCount) + ", not \"" + value + "\"";
            } else
                problem = "unknown key " + key;
            ok = problem.empty();
            if (!ok)
                error = where(path, group, key) + problem;
        }
        g_strfreev(keys);
        if (ok && isPort) {
            std::string problem;
            if (!check_port(port, problem)) {
                error = path + ": " + problem;
                ok = false;
            } else
                settings.ports.push_back(port);
        }
    }
    g_strfreev(groups);
    return ok;
}
