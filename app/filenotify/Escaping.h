#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace FileNotifyCli {

// Linux names are bytes, not text: these routines print any byte sequence
// safely and exactly.

// The length of the well-formed UTF-8 sequence at the start of bytes (1 to
// 4), with its code point in codePoint; 0 when the first byte does not start
// one (overlong forms, encoded surrogates, values above U+10FFFF, a missing
// or stray continuation byte).
std::size_t DecodeUtf8(const unsigned char* bytes, std::size_t size, char32_t& codePoint);

// Appends bytes as the inside of a JSON string, all in ASCII: characters are
// escaped as JSON allows (non-ASCII as \uXXXX, surrogate pairs above U+FFFF),
// and each byte that is not part of a valid UTF-8 sequence as \u00XX of that
// byte. Returns whether bytes were valid UTF-8; when not, the string alone
// cannot tell U+00E9 from the byte E9, so the caller adds the bytes in base64.
bool AppendJsonString(std::string& out, std::string_view bytes);

// Appends bytes in standard base64 with padding.
void AppendBase64(std::string& out, std::string_view bytes);

// Appends a name to a text line so that it stays on that line and cannot
// steer a terminal: a backslash becomes \\, and control characters (C0, DEL,
// C1) and bytes that are not UTF-8 become \xhh per byte. Other valid UTF-8
// stays as it is.
void AppendTextName(std::string& out, std::string_view bytes);

}  // namespace FileNotifyCli
