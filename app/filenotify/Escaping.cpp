#include "Escaping.h"

#include <sstream>

#include <Poco/Base64Encoder.h>

namespace FileNotifyCli {

namespace {

constexpr char kUpperHex[] = "0123456789ABCDEF";
constexpr char kLowerHex[] = "0123456789abcdef";

// What a lead byte allows (the well-formed sequences of Unicode's table 3-7):
// the sequence length and the range of the second byte; later bytes are
// 80..BF.
struct Lead {
    unsigned char length;
    unsigned char low;
    unsigned char high;
};

Lead LeadOf(unsigned char byte) {
    if (byte < 0x80) return {1, 0, 0};
    if (byte < 0xC2) return {0, 0, 0};  // a continuation byte, or C0/C1 (always overlong)
    if (byte < 0xE0) return {2, 0x80, 0xBF};
    if (byte == 0xE0) return {3, 0xA0, 0xBF};  // lower would be overlong
    if (byte == 0xED) return {3, 0x80, 0x9F};  // higher would be a surrogate
    if (byte < 0xF0) return {3, 0x80, 0xBF};
    if (byte == 0xF0) return {4, 0x90, 0xBF};  // lower would be overlong
    if (byte < 0xF4) return {4, 0x80, 0xBF};
    if (byte == 0xF4) return {4, 0x80, 0x8F};  // higher would pass U+10FFFF
    return {0, 0, 0};
}

// Printable ASCII that JSON takes as it is. The slash is escaped as it was
// by the earlier POCO output, so valid names print the same.
bool PlainInJson(unsigned char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\' && c != '/';
}

void AppendUnicodeEscape(std::string& out, unsigned int unit) {
    const char escape[6] = {'\\',
                            'u',
                            kUpperHex[(unit >> 12) & 0xF],
                            kUpperHex[(unit >> 8) & 0xF],
                            kUpperHex[(unit >> 4) & 0xF],
                            kUpperHex[unit & 0xF]};
    out.append(escape, sizeof escape);
}

void AppendJsonCharacter(std::string& out, char32_t c) {
    switch (c) {
        case '"':
            out += "\\\"";
            return;
        case '\\':
            out += "\\\\";
            return;
        case '/':
            out += "\\/";
            return;
        case '\b':
            out += "\\b";
            return;
        case '\f':
            out += "\\f";
            return;
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    if (c < 0x10000) {
        AppendUnicodeEscape(out, c);
        return;
    }
    const char32_t offset = c - 0x10000;
    AppendUnicodeEscape(out, 0xD800 + (offset >> 10));
    AppendUnicodeEscape(out, 0xDC00 + (offset & 0x3FF));
}

// Appends the bytes from i on that `plain` lets through as they are; returns
// where that run ends.
template <class Plain>
std::size_t CopyPlainRun(std::string& out, std::string_view bytes, std::size_t i, Plain plain) {
    std::size_t end = i;
    while (end < bytes.size() && plain(static_cast<unsigned char>(bytes[end])))
        ++end;
    out.append(bytes.data() + i, end - i);
    return end;
}

bool PlainInText(unsigned char c) {
    return c >= 0x20 && c < 0x7F && c != '\\';
}

void AppendHexBytes(std::string& out, const unsigned char* bytes, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        const char escape[4] = {'\\', 'x', kLowerHex[bytes[i] >> 4], kLowerHex[bytes[i] & 0xF]};
        out.append(escape, sizeof escape);
    }
}

}  // namespace

std::size_t DecodeUtf8(const unsigned char* bytes, std::size_t size, char32_t& codePoint) {
    if (size == 0) return 0;
    const Lead lead = LeadOf(bytes[0]);
    if (lead.length == 1) {
        codePoint = bytes[0];
        return 1;
    }
    if (lead.length == 0 || size < lead.length || bytes[1] < lead.low || bytes[1] > lead.high) return 0;
    char32_t value = bytes[0] & (0x7F >> lead.length);
    for (std::size_t i = 1; i < lead.length; ++i) {
        if (i > 1 && (bytes[i] & 0xC0) != 0x80) return 0;
        value = (value << 6) | (bytes[i] & 0x3F);
    }
    codePoint = value;
    return lead.length;
}

bool AppendJsonString(std::string& out, std::string_view bytes) {
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t size = bytes.size();
    bool valid = true;
    std::size_t i = 0;
    while (i < size) {
        if ((i = CopyPlainRun(out, bytes, i, PlainInJson)) == size) break;
        char32_t c = 0;
        const std::size_t length = DecodeUtf8(s + i, size - i, c);
        if (length == 0) {
            // Only this byte: whatever follows is judged on its own.
            valid = false;
            AppendUnicodeEscape(out, s[i]);
            ++i;
            continue;
        }
        AppendJsonCharacter(out, c);
        i += length;
    }
    return valid;
}

void AppendBase64(std::string& out, std::string_view bytes) {
    // Names that need it are rare: POCO's stream encoder is cheap enough.
    std::ostringstream encoded;
    Poco::Base64Encoder encoder(encoded);
    encoder.rdbuf()->setLineLength(0);
    encoder.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    encoder.close();
    out += encoded.str();
}

void AppendTextName(std::string& out, std::string_view bytes) {
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t size = bytes.size();
    std::size_t i = 0;
    while (i < size) {
        if ((i = CopyPlainRun(out, bytes, i, PlainInText)) == size) break;
        if (s[i] == '\\') {
            out += "\\\\";
            ++i;
            continue;
        }
        char32_t c = 0;
        const std::size_t length = DecodeUtf8(s + i, size - i, c);
        if (length == 0 || c < 0x20 || (c >= 0x7F && c <= 0x9F)) {
            const std::size_t escaped = length == 0 ? 1 : length;
            AppendHexBytes(out, s + i, escaped);
            i += escaped;
            continue;
        }
        out.append(bytes.data() + i, length);
        i += length;
    }
}

}  // namespace FileNotifyCli
