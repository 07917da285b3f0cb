#include "foundation/string_utils.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <memory>
#include <stdexcept>

// GCC 12 reports a false "may be used uninitialized" inside std::regex's
// std::function members when optimising with the sanitizers on.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop

// Wide text holds one Unicode code point per wchar_t.
static_assert(sizeof(wchar_t) == 4, "wide text is expected to be UTF-32");

std::string string_format(const char* format, ...) {
    std::vector<char> buffer(256);
    for (;;) {
        va_list args;
        va_start(args, format);
        const int needed = vsnprintf(buffer.data(), buffer.size(), format, args);
        va_end(args);
        if (needed < 0) {
            return std::string();
        }
        if (static_cast<size_t>(needed) < buffer.size()) {
            return std::string(buffer.data(), static_cast<size_t>(needed));
        }
        buffer.resize(static_cast<size_t>(needed) + 1);
    }
}

namespace {

template <typename CharT>
std::vector<std::basic_string<CharT>> SplitByRegex(const std::basic_string<CharT>& text,
                                                   const std::basic_string<CharT>& pattern) {
    using Iterator = typename std::basic_string<CharT>::const_iterator;
    const std::basic_regex<CharT> separator(pattern, std::regex_constants::ECMAScript);
    std::regex_token_iterator<Iterator> piece(text.begin(), text.end(), separator, -1);
    std::regex_token_iterator<Iterator> end;
    std::vector<std::basic_string<CharT>> pieces;
    for (; piece != end; ++piece) {
        pieces.push_back(piece->str());
    }
    return pieces;
}

template <typename CharT>
void ReplaceAll(std::basic_string<CharT>& text, const std::basic_string<CharT>& from,
                const std::basic_string<CharT>& to) {
    if (from.empty()) {
        return;
    }
    size_t position = 0;
    while ((position = text.find(from, position)) != std::basic_string<CharT>::npos) {
        text.replace(position, from.size(), to);
        position += to.size();
    }
}

}  // namespace

std::vector<std::string> split(const std::string& text, const std::string& pattern) {
    return SplitByRegex(text, pattern);
}

std::vector<std::wstring> split(const std::wstring& text, const std::wstring& pattern) {
    return SplitByRegex(text, pattern);
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    ReplaceAll(text, from, to);
}

void replace_all(std::wstring& text, const std::wstring& from, const std::wstring& to) {
    ReplaceAll(text, from, to);
}

std::string FoldName(std::string name) {
    for (char& c : name) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return name;
}

bool ends_with(const std::string& text, const std::string& suffix) {
    if (suffix.size() > text.size()) {
        return false;
    }
    return text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

namespace {

constexpr uint32_t kReplacementCharacter = 0xFFFD;

void AppendUtf8(std::string& out, uint32_t codePoint) {
    if (codePoint > 0x10FFFF || (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
        codePoint = kReplacementCharacter;
    }
    if (codePoint < 0x80) {
        out.push_back(static_cast<char>(codePoint));
    } else if (codePoint < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else if (codePoint < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((codePoint >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (codePoint & 0x3F)));
    }
}

}  // namespace

// A strict decoder: overlong forms, surrogates and values above U+10FFFF are
// rejected. Each maximal ill-formed part becomes one U+FFFD, and decoding goes
// on with the next byte, so malformed names stay readable.
std::wstring s2ws(const std::string& text) {
    std::wstring wide;
    wide.reserve(text.size());
    const size_t size = text.size();
    size_t i = 0;
    while (i < size) {
        const unsigned char lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            wide.push_back(static_cast<wchar_t>(lead));
            ++i;
            continue;
        }
        size_t length = 0;
        uint32_t codePoint = 0;
        // The allowed range of the second byte depends on the lead byte.
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            codePoint = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            // E0 would be overlong below A0, ED a surrogate above 9F.
            length = 3;
            codePoint = lead & 0x0F;
            low = lead == 0xE0 ? 0xA0 : low;
            high = lead == 0xED ? 0x9F : high;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            // F0 would be overlong below 90, F4 above U+10FFFF past 8F.
            length = 4;
            codePoint = lead & 0x07;
            low = lead == 0xF0 ? 0x90 : low;
            high = lead == 0xF4 ? 0x8F : high;
        } else {
            wide.push_back(static_cast<wchar_t>(kReplacementCharacter));
            ++i;
            continue;
        }
        size_t next = i + 1;
        bool complete = true;
        for (size_t k = 1; k < length; ++k) {
            const unsigned char byte = next < size ? static_cast<unsigned char>(text[next]) : 0;
            if (next >= size || byte < low || byte > high) {
                complete = false;
                break;
            }
            codePoint = (codePoint << 6) | (byte & 0x3F);
            ++next;
            low = 0x80;
            high = 0xBF;
        }
        wide.push_back(static_cast<wchar_t>(complete ? codePoint : kReplacementCharacter));
        i = next;
    }
    return wide;
}

std::string ws2s(const std::wstring& wide) {
    std::string text;
    text.reserve(wide.size());
    for (wchar_t character : wide) {
        AppendUtf8(text, static_cast<uint32_t>(character));
    }
    return text;
}

void strip(const char* source, char* destination) {
    const char* begin = source;
    while (*begin == ' ') {
        ++begin;
    }
    size_t length = strlen(begin);
    while (length > 0 && begin[length - 1] == ' ') {
        --length;
    }
    memmove(destination, begin, length);
    destination[length] = '\0';
}

namespace {

bool MakeOneDirectory(const std::string& path) {
    if (mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) {
        return true;
    }
    errno = ENOTDIR;
    return false;
}

}  // namespace

bool CreateDirectoryRecursively(const std::string& path) {
    for (size_t separator = path.find_first_of("\\/"); separator != std::string::npos;
         separator = path.find_first_of("\\/", separator + 1)) {
        // A leading separator names the root, which always exists.
        if (separator == 0) {
            continue;
        }
        if (!MakeOneDirectory(path.substr(0, separator))) {
            return false;
        }
    }
    return MakeOneDirectory(path);
}

std::string pexec(const std::string& command) {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe) {
        throw std::runtime_error("popen() failed!");
    }
    std::string output;
    char buffer[4096];
    size_t count;
    while ((count = fread(buffer, 1, sizeof(buffer), pipe.get())) > 0) {
        output.append(buffer, count);
    }
    return output;
}

namespace {

char UpperAscii(char c) {
    return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

wchar_t UpperWide(wchar_t c) {
    return static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
}

template <typename CharT>
struct Wildcards {
    static constexpr CharT kStar = static_cast<CharT>('*');
    static constexpr CharT kQuestion = static_cast<CharT>('?');
    static constexpr CharT kDosDot = static_cast<CharT>('"');
    static constexpr CharT kDosStar = static_cast<CharT>('<');
    static constexpr CharT kDosQuestion = static_cast<CharT>('>');
    static constexpr CharT kDot = static_cast<CharT>('.');
};

// The position the state at `p`, whose expression character is `e`, moves to
// on reading the name character `c`; past the end when it cannot move.
template <typename CharT, typename Upper>
size_t MoveState(CharT e, CharT c, size_t p, bool atLastDot, bool ignoreCase, Upper upper) {
    using W = Wildcards<CharT>;
    const size_t none = static_cast<size_t>(-1);
    if (e == W::kStar) return p;
    if (e == W::kDosStar) return atLastDot ? none : p;
    if (e == W::kDosDot) return c == W::kDot ? p + 1 : none;
    if (e == W::kDosQuestion) return atLastDot ? none : p + 1;
    if (e == W::kQuestion) return p + 1;
    if (e == c || (ignoreCase && upper(e) == upper(c))) return p + 1;
    return none;
}

// Adds the states reached without reading a character. Such moves only go
// forward, so one ascending pass closes the set.
template <typename CharT>
void CloseEmptyMoves(const std::basic_string<CharT>& expression, std::vector<char>& active,
                     bool atLastDot) {
    using W = Wildcards<CharT>;
    for (size_t p = 0; p < expression.size(); ++p) {
        if (!active[p]) continue;
        const CharT e = expression[p];
        if (e == W::kStar || e == W::kDosStar || e == W::kDosDot ||
            (e == W::kDosQuestion && atLastDot)) {
            active[p + 1] = 1;
        }
    }
}

// Simulates the expression as a nondeterministic automaton whose states are
// positions in the expression: `active[p]` says that the first p expression
// characters can match the name read so far. Wildcards that may match nothing
// ('*', '<', '"', and '>' before the last dot) let a state fall through to the
// next position; every name character then moves each active state once. The
// cost is bounded by expression length x name length, so patterns such as
// "*a*a*a*a*b" cannot blow up the way plain backtracking does.
template <typename CharT, typename Upper>
bool MatchExpression(const std::basic_string<CharT>& expression,
                     const std::basic_string<CharT>& name, bool ignoreCase, Upper upper) {
    const size_t patternLength = expression.size();
    const size_t lastDot = name.rfind(Wildcards<CharT>::kDot);  // npos without a dot

    std::vector<char> active(patternLength + 1, 0);
    std::vector<char> next(patternLength + 1, 0);
    active[0] = 1;
    for (size_t i = 0;; ++i) {
        CloseEmptyMoves(expression, active, i == lastDot);
        if (i == name.size()) return active[patternLength] != 0;

        bool any = false;
        std::fill(next.begin(), next.end(), 0);
        for (size_t p = 0; p < patternLength; ++p) {
            if (!active[p]) continue;
            const size_t target =
                MoveState(expression[p], name[i], p, i == lastDot, ignoreCase, upper);
            if (target <= patternLength) {
                next[target] = 1;
                any = true;
            }
        }
        if (!any) return false;
        active.swap(next);
    }
}

}  // namespace

bool IsNameInExpressionA(const std::string& expression, const std::string& name, bool ignoreCase) {
    return MatchExpression(expression, name, ignoreCase, UpperAscii);
}

bool IsNameInExpression(const std::wstring& expression, const std::wstring& name, bool ignoreCase) {
    return MatchExpression(expression, name, ignoreCase, UpperWide);
}
