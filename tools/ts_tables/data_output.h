#pragma once
// Standard output kept for a tool's data. The library prints its few messages
// on standard output; while a data_output lives, descriptor 1 points at
// standard error, so those messages (and anything else written to stdout)
// land there, and the data goes to the original standard output through a
// duplicate of it.

#include <ext/stdio_filebuf.h>

#include <cstdio>
#include <memory>
#include <ostream>

class data_output {
public:
    data_output();
    ~data_output();
    data_output(const data_output&) = delete;
    data_output& operator=(const data_output&) = delete;

    // The original standard output (stdout itself when it could not be
    // duplicated). Use either the file or the stream in one tool, not both.
    FILE* file() const { return m_file; }
    std::ostream& stream() { return m_stream; }

private:
    FILE* m_file = stdout;
    std::unique_ptr<__gnu_cxx::stdio_filebuf<char>> m_buffer;
    std::ostream m_stream;
};
