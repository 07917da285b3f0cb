// Text helpers shared across the library: formatting, splitting, replacing,
// UTF-8 conversion, wildcard matching of names, directory creation and
// running a shell command.
#ifndef LIBFILESYSTEM_FOUNDATION_STRING_UTILS_H_
#define LIBFILESYSTEM_FOUNDATION_STRING_UTILS_H_

#include <string>
#include <vector>

// printf-style formatting into a std::string of whatever length is needed.
std::string string_format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The pieces of `text` between matches of the regular expression `pattern`
// (ECMAScript grammar). A leading match yields an empty first piece; a
// trailing match adds no empty last piece; an empty text yields one empty piece.
std::vector<std::string> split(const std::string& text, const std::string& pattern);
std::vector<std::wstring> split(const std::wstring& text, const std::wstring& pattern);

// Replaces every occurrence of `from` in `text` with `to`. The search resumes
// after the inserted text, so a `to` that contains `from` does not loop. An
// empty `from` leaves the text unchanged.
void replace_all(std::string& text, const std::string& from, const std::string& to);
void replace_all(std::wstring& text, const std::wstring& from, const std::wstring& to);

// Folds a name to lower case for comparisons that ignore case (names in a
// folder, paths, process names, cache keys). Only ASCII letters change;
// bytes of multi-byte UTF-8 sequences stay as they are.
std::string FoldName(std::string name);

// True when `text` ends with `suffix` (byte-wise).
bool ends_with(const std::string& text, const std::string& suffix);

// UTF-8 to wide text (one wchar_t per code point) and back. Malformed input
// never fails: each invalid sequence becomes U+FFFD.
std::wstring s2ws(const std::string& text);
std::string ws2s(const std::wstring& wide);

// Copies `source` to `destination` without its leading and trailing spaces
// (only ' ' counts). `destination` must hold strlen(source) + 1 bytes; it may
// be the same buffer as `source`.
void strip(const char* source, char* destination);

// Creates every directory along `path` (separators '/' or '\\') with mode
// 0755. Directories that exist already are fine. On any other failure errno is
// set to ENOTDIR and false is returned.
bool CreateDirectoryRecursively(const std::string& path);

// Runs `command` through the shell and returns everything it writes to its
// standard output. Throws std::runtime_error("popen() failed!") when the
// command cannot be started.
std::string pexec(const std::string& command);

// Wildcard matching of a whole name against an expression:
//   '*'  any run of characters, the empty run included;
//   '?'  any one character;
//   '"'  a dot, or nothing;
//   '<'  any run of characters that does not take in the last dot of the name;
//   '>'  any one character, except that the last dot of the name is matched
//        as nothing;
// every other character matches itself (ignoring case when `ignoreCase`).
// Runs in O(expression length x name length) whatever the pattern.
bool IsNameInExpressionA(const std::string& expression, const std::string& name, bool ignoreCase);
bool IsNameInExpression(const std::wstring& expression, const std::wstring& name, bool ignoreCase);

#endif  // LIBFILESYSTEM_FOUNDATION_STRING_UTILS_H_
