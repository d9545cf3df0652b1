#pragma once

#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

#include "FileNotifyLog.h"

// A broken promise of the code under test: libFuzzer keeps the input.
#define FUZZ_CHECK(cond, what)                                                         \
    do {                                                                               \
        if (!(cond)) {                                                                 \
            std::fprintf(stderr, "%s:%d: %s (%s)\n", __FILE__, __LINE__, what, #cond); \
            std::abort();                                                              \
        }                                                                              \
    } while (0)

namespace FuzzUtil {

// Reads an input front to back; past its end every read yields zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : _data(data), _size(size) {}

    template <class T>
    T Take() {
        T value{};
        const std::size_t n = sizeof(T) < _size ? sizeof(T) : _size;
        std::memcpy(&value, _data, n);
        Skip(n);
        return value;
    }
    bool Bit() {
        if (_bits == 0) {
            _byte = Take<std::uint8_t>();
            _bits = 8;
        }
        --_bits;
        return ((_byte >> _bits) & 1U) != 0;
    }
    // A length byte, then that many bytes (fewer at the end of the input).
    std::string String() {
        std::size_t n = Take<std::uint8_t>();
        if (n > _size) n = _size;
        std::string text(reinterpret_cast<const char*>(_data), n);
        Skip(n);
        return text;
    }
    std::string Rest() {
        std::string text(reinterpret_cast<const char*>(_data), _size);
        Skip(_size);
        return text;
    }

private:
    void Skip(std::size_t n) {
        _data += n;
        _size -= n;
    }
    const std::uint8_t* _data;
    std::size_t _size;
    std::uint8_t _byte = 0;
    int _bits = 0;
};

// The module logs everything, formatted, into nothing: the records' code
// runs without slowing the fuzzer with output. FN_FUZZ_LOG=1 keeps the log
// where it goes, at debug level, to see what one input does.
inline void QuietModuleLog() {
    Poco::Logger* logger = Engine::GetLoggerPtr();
    if (logger == nullptr) return;
    const char* keep = std::getenv("FN_FUZZ_LOG");
    if (keep == nullptr || *keep != '1') logger->setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    logger->setLevel(Poco::Message::PRIO_DEBUG);
}

// A fresh folder holding a/, a/b/ and the file f, removed at exit. path()
// ends with "/".
class TempTree {
public:
    TempTree() {
        std::string tmpl = "/tmp/fn_fuzz_XXXXXX";
        FUZZ_CHECK(::mkdtemp(tmpl.data()) != nullptr, "no temporary folder");
        _path = tmpl + "/";
        ::mkdir((_path + "a").c_str(), 0755);
        ::mkdir((_path + "a/b").c_str(), 0755);
        std::FILE* file = std::fopen((_path + "f").c_str(), "w");
        if (file != nullptr) std::fclose(file);
    }
    ~TempTree() {
        ::nftw(
            _path.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }
    TempTree(const TempTree&) = delete;
    TempTree& operator=(const TempTree&) = delete;
    const std::string& path() const { return _path; }

private:
    std::string _path;
};

}  // namespace FuzzUtil
