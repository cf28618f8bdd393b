#include "data_output.h"

#include <unistd.h>

data_output::data_output() : m_stream(nullptr) {
    std::fflush(stdout);
    const int data = dup(STDOUT_FILENO);
    FILE* file = data >= 0 ? fdopen(data, "w") : nullptr;
    if (file && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0) {
        m_file = file;
    } else if (file) {
        std::fclose(file);
    } else if (data >= 0) {
        close(data);
    }
    m_buffer = std::make_unique<__gnu_cxx::stdio_filebuf<char>>(m_file, std::ios::out);
    m_stream.rdbuf(m_buffer.get());
}

data_output::~data_output() {
    m_stream.flush();
    m_stream.rdbuf(nullptr);
    m_buffer.reset();
    if (m_file == stdout)
        return;
    std::fflush(stdout);
    std::fflush(m_file);
    dup2(fileno(m_file), STDOUT_FILENO);  // descriptor 1 is standard output again
    std::fclose(m_file);
}
