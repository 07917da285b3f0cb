#include "remotes/fault_list.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace {

constexpr const char* kOpNames[kFaultOpCount] = {"list",    "get",    "download", "upload",
                                                 "mkdir",   "delete", "rename",   "move",
                                                 "changes", "quota",  "settime"};
// The highest code of the error table, which has gaps.
constexpr int kLastErrorCode = 9000;
constexpr std::chrono::milliseconds kMaxLatency = std::chrono::hours(1);

std::string OpNames() {
    std::string names;
    for (const char* name : kOpNames)
        names += std::string(name) + ", ";
    return names + "all";
}

// The operations `name` covers: one, or every one for "all".
bool ParseOps(const std::string& name, std::vector<FaultOp>* ops, std::string* error) {
    for (size_t i = 0; i < kFaultOpCount; ++i) {
        if (name == kOpNames[i] || name == "all") ops->push_back(static_cast<FaultOp>(i));
    }
    if (!ops->empty()) return true;
    *error = "unknown operation '" + name + "' (known: " + OpNames() + ")";
    return false;
}

// A failure code by its name, as GetAERRORA spells it.
bool ParseErrorName(const std::string& name, AERROR* code, std::string* error) {
    for (int value = 1; value <= kLastErrorCode && !name.empty(); ++value) {
        if (name == GetAERRORA(static_cast<AERROR>(value))) {
            *code = static_cast<AERROR>(value);
            return true;
        }
    }
    *error = "unknown error name '" + name + "' (e.g. SOCK_TIMEOUT, SOCK_CONNECTION_REFUSED)";
    return false;
}

bool ParseFraction(const std::string& text, double* fraction, std::string* error) {
    char* end = nullptr;
    const double value = text.empty() ? -1 : strtod(text.c_str(), &end);
    if (end == nullptr || *end != '\0' || !(value >= 0 && value <= 1)) {
        *error = "'" + text + "' is not a fraction from 0 to 1";
        return false;
    }
    *fraction = value;
    return true;
}

// "250ms" or "2s".
bool ParseDuration(const std::string& text, std::chrono::milliseconds* duration,
                   std::string* error) {
    char* end = nullptr;
    errno = 0;
    const bool digits = !text.empty() && text[0] >= '0' && text[0] <= '9';
    const unsigned long long value = digits ? strtoull(text.c_str(), &end, 10) : 0;
    const std::string unit = end != nullptr ? end : "";
    const auto limit = static_cast<unsigned long long>(kMaxLatency.count());
    if (errno == 0 && digits && (unit == "ms" || unit == "s") && value <= limit) {
        const std::chrono::milliseconds parsed(unit == "s" ? value * 1000 : value);
        if (parsed <= kMaxLatency) {
            *duration = parsed;
            return true;
        }
    }
    *error = "'" + text + "' is not a duration such as 20ms or 2s (at most an hour)";
    return false;
}

bool ParseSeed(const std::string& text, uint64_t* seed, std::string* error) {
    char* end = nullptr;
    errno = 0;
    const bool digits = !text.empty() && text[0] >= '0' && text[0] <= '9';
    const unsigned long long value = digits ? strtoull(text.c_str(), &end, 10) : 0;
    if (!digits || errno != 0 || *end != '\0') {
        *error = "seed '" + text + "' is not a whole number";
        return false;
    }
    *seed = value;
    return true;
}

// "OP:VALUE" or "VALUE": the operations (all when none is named) and the value.
bool SplitOpValue(const std::string& text, std::vector<FaultOp>* ops, std::string* value,
                  std::string* error) {
    const size_t colon = text.find(':');
    *value = colon == std::string::npos ? text : text.substr(colon + 1);
    return ParseOps(colon == std::string::npos ? "all" : text.substr(0, colon), ops, error);
}

bool ApplyItem(const std::string& name, const std::string& value, FaultList* faults,
               std::string* error) {
    std::vector<FaultOp> ops;
    if (name == "seed") return ParseSeed(value, &faults->seed, error);
    if (name == "hang") {
        if (!ParseOps(value, &ops, error)) return false;
        for (FaultOp op : ops)
            faults->ops[static_cast<size_t>(op)].hang = true;
        return true;
    }
    if (name == "latency") {
        std::string duration;
        std::chrono::milliseconds latency{0};
        if (!SplitOpValue(value, &ops, &duration, error)) return false;
        if (!ParseDuration(duration, &latency, error)) return false;
        for (FaultOp op : ops)
            faults->ops[static_cast<size_t>(op)].latency = latency;
        return true;
    }
    if (!ParseOps(name, &ops, error)) return false;
    const size_t colon = value.find(':');
    double fraction = 0;
    AERROR code = OpFaults().error;
    if (!ParseFraction(value.substr(0, colon), &fraction, error)) return false;
    if (colon != std::string::npos && !ParseErrorName(value.substr(colon + 1), &code, error)) {
        return false;
    }
    for (FaultOp op : ops) {
        faults->ops[static_cast<size_t>(op)].fraction = fraction;
        faults->ops[static_cast<size_t>(op)].error = code;
    }
    return true;
}

}  // namespace

const char* FaultOpName(FaultOp op) {
    const size_t index = static_cast<size_t>(op);
    return index < kFaultOpCount ? kOpNames[index] : "?";
}

bool ParseFaultList(const std::string& text, FaultList* faults, std::string* error) {
    FaultList parsed;
    parsed.text = text;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        const std::string item = text.substr(start, comma - start);
        start = comma + 1;
        const size_t equals = item.find('=');
        std::string why = "it must look like OP=FRACTION, latency=DURATION, hang=OP or seed=N";
        if (equals != std::string::npos && equals > 0 &&
            ApplyItem(item.substr(0, equals), item.substr(equals + 1), &parsed, &why)) {
            continue;
        }
        *error = "fault item '" + item + "' in '" + text + "': " + why;
        return false;
    }
    *faults = std::move(parsed);
    return true;
}

bool SplitFaultLocation(const std::string& location,
                        const std::function<bool(const std::string&)>& isScheme,
                        std::string* faults, std::string* remote) {
    for (size_t colon = location.find(':'); colon != std::string::npos;
         colon = location.find(':', colon + 1)) {
        const size_t next = location.find(':', colon + 1);
        if (next == std::string::npos) return false;
        if (isScheme(location.substr(colon + 1, next - colon - 1))) {
            *faults = location.substr(0, colon);
            *remote = location.substr(colon + 1);
            return true;
        }
    }
    return false;
}
