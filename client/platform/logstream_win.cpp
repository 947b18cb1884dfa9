#include "logstream.h"

#include <cstdio>
#include <io.h>
#include <share.h>
#include <streambuf>

namespace platform {

namespace {

// The share mode can only be given where the C library opens the file; not every standard
// library's file stream takes one, so the stream writes through that C stream. Unbuffered
// here: the C stream buffers, and a flush of the stream flushes it.
class SharedFileBuffer : public std::streambuf {
public:
    explicit SharedFileBuffer(std::FILE* file) : file(file) {}

protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::not_eof(c);
        return std::fputc(traits_type::to_char_type(c), file) == EOF ? traits_type::eof() : c;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        return static_cast<std::streamsize>(
            std::fwrite(text, 1, static_cast<std::size_t>(count), file));
    }
    int sync() override { return std::fflush(file) == 0 ? 0 : -1; }

private:
    std::FILE* file;
};

class SharedFileStream : public std::ostream {
public:
    // Without a file the stream stays bad and swallows what is written.
    explicit SharedFileStream(std::FILE* file) : std::ostream(nullptr), buffer(file) {
        if (file)
            rdbuf(&buffer);
    }

private:
    SharedFileBuffer buffer;
};

} // namespace

std::ostream* openLogStream(const std::string& path) {
    // Other processes may read and write the log while the program runs.
    std::FILE* file = _fsopen(path.c_str(), "w", _SH_DENYNO);
    // Another user's log in the shared folder is read-only to us, or held open without sharing.
    if (!file && _access(path.c_str(), 0) == 0)
        return nullptr;
    return new SharedFileStream(file);
}

} // namespace platform
