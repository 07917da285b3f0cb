#include "cli/sizes.h"

#include <cctype>
#include <cmath>
#include <cstdio>

namespace {

// The power of 1024 a suffix letter stands for; -1 for an unknown letter.
int SuffixPower(char letter) {
    switch (std::toupper(static_cast<unsigned char>(letter))) {
        case 'B':
            return 0;
        case 'K':
            return 1;
        case 'M':
            return 2;
        case 'G':
            return 3;
        case 'T':
            return 4;
        default:
            return -1;
    }
}

bool EqualsIgnoringCase(const std::string& text, const char* word) {
    size_t i = 0;
    for (; word[i] != '\0'; ++i) {
        if (i >= text.size() || std::tolower(static_cast<unsigned char>(text[i])) !=
                                    static_cast<unsigned char>(word[i]))
            return false;
    }
    return i == text.size();
}

}  // namespace

Status ParseSize(const std::string& text, uint64_t* bytes) {
    auto fail = [&](const std::string& why) {
        return Status::Error("invalid size '" + text + "': " + why);
    };
    size_t pos = 0;
    uint64_t whole = 0;
    bool digits = false;
    for (; pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])); ++pos) {
        const uint64_t digit = static_cast<uint64_t>(text[pos] - '0');
        if (whole > (UINT64_MAX - digit) / 10) return fail("too large");
        whole = whole * 10 + digit;
        digits = true;
    }
    // A fraction is kept to nine places: plenty for "1.5G".
    uint64_t fraction = 0;
    uint64_t scale = 1;
    if (pos < text.size() && text[pos] == '.') {
        ++pos;
        for (; pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos])); ++pos) {
            if (scale < 1000000000ull) {
                fraction = fraction * 10 + static_cast<uint64_t>(text[pos] - '0');
                scale *= 10;
            }
            digits = true;
        }
    }
    if (!digits) return fail("expected a number such as 512M or 10G");

    int power = 0;
    if (pos < text.size()) {
        power = SuffixPower(text[pos]);
        const std::string rest = text.substr(pos + 1);
        const bool tailOk =
            rest.empty() ||
            (power > 0 && (EqualsIgnoringCase(rest, "b") || EqualsIgnoringCase(rest, "ib")));
        if (power < 0 || !tailOk) return fail("the suffix must be K, M, G or T");
    }
    const uint64_t unit = uint64_t{1} << (10 * power);
    if (whole > UINT64_MAX / unit) return fail("too large");
    const uint64_t fromFraction = static_cast<uint64_t>(static_cast<long double>(fraction) *
                                                        static_cast<long double>(unit) / scale);
    if (whole * unit > UINT64_MAX - fromFraction) return fail("too large");
    *bytes = whole * unit + fromFraction;
    return Status::Ok();
}

std::string FormatBytes(uint64_t bytes) {
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    // Round first, so that 1023.96 KiB shows as "1.0 MiB" and not "1024.0 KiB".
    while (std::round(value * 10) / 10 >= 1024 && unit + 1 < sizeof(kUnits) / sizeof(kUnits[0])) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
    return text;
}
