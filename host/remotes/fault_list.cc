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
Status ParseOps(const std::string& name, std::vector<FaultOp>* ops) {
    for (size_t i = 0; i < kFaultOpCount; ++i) {
        if (name == kOpNames[i] || name == "all") ops->push_back(static_cast<FaultOp>(i));
    }
    if (!ops->empty()) return Status::Ok();
    return Status::Error("unknown operation '" + name + "' (known: " + OpNames() + ")");
}

// A failure code by its name, as GetAERRORA spells it.
Status ParseErrorName(const std::string& name, AERROR* code) {
    for (int value = 1; value <= kLastErrorCode && !name.empty(); ++value) {
        if (name == GetAERRORA(static_cast<AERROR>(value))) {
            *code = static_cast<AERROR>(value);
            return Status::Ok();
        }
    }
    return Status::Error("unknown error name '" + name +
                         "' (e.g. SOCK_TIMEOUT, SOCK_CONNECTION_REFUSED)");
}

Status ParseFraction(const std::string& text, double* fraction) {
    char* end = nullptr;
    const double value = text.empty() ? -1 : strtod(text.c_str(), &end);
    if (end == nullptr || *end != '\0' || !(value >= 0 && value <= 1)) {
        return Status::Error("'" + text + "' is not a fraction from 0 to 1");
    }
    *fraction = value;
    return Status::Ok();
}

// A whole number that starts `text`, and the unit text after it; false when
// `text` does not start with a digit or the number does not fit.
bool ReadNumber(const std::string& text, unsigned long long* value, std::string* unit) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    *value = strtoull(text.c_str(), &end, 10);
    *unit = end;
    return errno == 0;
}

// "250ms" or "2s".
Status ParseDuration(const std::string& text, std::chrono::milliseconds* duration) {
    unsigned long long value = 0;
    std::string unit;
    const auto limit = static_cast<unsigned long long>(kMaxLatency.count());
    if (ReadNumber(text, &value, &unit) && (unit == "ms" || unit == "s") && value <= limit) {
        const std::chrono::milliseconds parsed(unit == "s" ? value * 1000 : value);
        if (parsed <= kMaxLatency) {
            *duration = parsed;
            return Status::Ok();
        }
    }
    return Status::Error("'" + text + "' is not a duration such as 20ms or 2s (at most an hour)");
}

Status ParseSeed(const std::string& text, uint64_t* seed) {
    unsigned long long value = 0;
    std::string unit;
    if (!ReadNumber(text, &value, &unit) || !unit.empty()) {
        return Status::Error("seed '" + text + "' is not a whole number");
    }
    *seed = value;
    return Status::Ok();
}

// "4096", "256k" or "2m": bytes, KiB or MiB, at least one byte.
Status ParseRate(const std::string& text, uint64_t* rate) {
    unsigned long long value = 0;
    std::string unit;
    const bool number = ReadNumber(text, &value, &unit);
    const int shift = unit.empty()                 ? 0
                      : unit == "k" || unit == "K" ? 10
                      : unit == "m" || unit == "M" ? 20
                                                   : -1;
    if (!number || shift < 0 || value == 0 || value > (1ull << 40)) {
        return Status::Error("'" + text +
                             "' is not a rate such as 4096, 256k or 2m (bytes a second)");
    }
    *rate = value << shift;
    return Status::Ok();
}

// "OP:VALUE" or "VALUE": the operations (all when none is named) and the value.
Status SplitOpValue(const std::string& text, std::vector<FaultOp>* ops, std::string* value) {
    const size_t colon = text.find(':');
    *value = colon == std::string::npos ? text : text.substr(colon + 1);
    return ParseOps(colon == std::string::npos ? "all" : text.substr(0, colon), ops);
}

Status ApplyItem(const std::string& name, const std::string& value, FaultList* faults) {
    std::vector<FaultOp> ops;
    if (name == "seed") return ParseSeed(value, &faults->seed);
    if (name == "rate") return ParseRate(value, &faults->uploadRate);
    if (name == "switch") {
        faults->switchFile = value;
        if (!value.empty()) return Status::Ok();
        return Status::Error("switch needs the path of a file");
    }
    if (name == "hang") {
        if (const Status failed = ParseOps(value, &ops); !failed.ok()) return failed;
        for (FaultOp op : ops)
            faults->ops[static_cast<size_t>(op)].hang = true;
        return Status::Ok();
    }
    if (name == "latency") {
        std::string duration;
        std::chrono::milliseconds latency{0};
        if (const Status failed = SplitOpValue(value, &ops, &duration); !failed.ok()) return failed;
        if (const Status failed = ParseDuration(duration, &latency); !failed.ok()) return failed;
        for (FaultOp op : ops)
            faults->ops[static_cast<size_t>(op)].latency = latency;
        return Status::Ok();
    }
    if (const Status failed = ParseOps(name, &ops); !failed.ok()) return failed;
    const size_t colon = value.find(':');
    double fraction = 0;
    AERROR code = OpFaults().error;
    if (const Status failed = ParseFraction(value.substr(0, colon), &fraction); !failed.ok()) {
        return failed;
    }
    if (colon != std::string::npos) {
        if (const Status failed = ParseErrorName(value.substr(colon + 1), &code); !failed.ok()) {
            return failed;
        }
    }
    for (FaultOp op : ops) {
        faults->ops[static_cast<size_t>(op)].fraction = fraction;
        faults->ops[static_cast<size_t>(op)].error = code;
    }
    return Status::Ok();
}

}  // namespace

const char* FaultOpName(FaultOp op) {
    const size_t index = static_cast<size_t>(op);
    return index < kFaultOpCount ? kOpNames[index] : "?";
}

Status ParseFaultList(const std::string& text, FaultList* faults) {
    FaultList parsed;
    parsed.text = text;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        const std::string item = text.substr(start, comma - start);
        start = comma + 1;
        const size_t equals = item.find('=');
        std::string why =
            "it must look like OP=FRACTION, latency=DURATION, hang=OP, seed=N, rate=SIZE or "
            "switch=PATH";
        if (equals != std::string::npos && equals > 0) {
            const Status applied =
                ApplyItem(item.substr(0, equals), item.substr(equals + 1), &parsed);
            if (applied.ok()) continue;
            why = applied.message();
        }
        return Status::Error("fault item '" + item + "' in '" + text + "': " + why);
    }
    *faults = std::move(parsed);
    return Status::Ok();
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
