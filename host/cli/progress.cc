#include "cli/progress.h"

#include <algorithm>
#include <cstdio>

#include "cli/sizes.h"

namespace {

constexpr char kEraseToEnd[] = "\033[K";

}  // namespace

int ProgressPercent(uint64_t done, uint64_t total) {
    if (total == 0 || done >= total) return 100;
    return static_cast<int>(static_cast<long double>(done) * 100 / static_cast<long double>(total));
}

std::string FormatProgressLine(const std::string& name, uint64_t done, uint64_t total, double rate,
                               size_t width) {
    const size_t columns = width > 1 ? width - 1 : 0;
    const int percent = ProgressPercent(done, total);
    const size_t barWidth = columns >= 60 ? 20 : 10;
    const size_t filled = barWidth * static_cast<size_t>(percent) / 100;
    const std::string bar =
        "[" + std::string(filled, '#') + std::string(barWidth - filled, '-') + "]";
    char numbers[64];
    snprintf(numbers, sizeof(numbers), " %3d%%  %s/s", percent,
             FormatBytes(rate > 0 ? static_cast<uint64_t>(rate) : 0).c_str());
    const std::string tail = " " + bar + numbers;

    // The name gets what the bar and the numbers leave, at least a little.
    constexpr size_t kMinName = 8;
    const size_t room = columns > tail.size() + kMinName ? columns - tail.size() : kMinName;
    std::string shown = name;
    if (shown.size() > room) shown = "..." + name.substr(name.size() - (room - 3));
    std::string line = shown + tail;
    if (line.size() > columns) line.resize(columns);
    return line;
}

ProgressView::Output ProgressView::Update(const std::string& name, uint64_t done, uint64_t total,
                                          double rate, Clock::time_point now, size_t width) {
    Output out;
    auto found = uploads_.find(name);
    if (found == uploads_.end()) {
        found = uploads_.emplace(name, Upload{now, now, false}).first;
    }
    Upload& upload = found->second;
    const bool finished = done >= total;
    const bool longRunning = now - upload.start >= kShowAfter;

    if (terminal_) {
        if (longRunning || (finished && upload.shown)) {
            out.terminal = "\r" + FormatProgressLine(name, done, total, rate, width) + kEraseToEnd;
            upload.shown = true;
            lineOpen_ = true;
            if (finished) {
                out.terminal += "\n";
                lineOpen_ = false;
            }
        }
    } else if (finished) {
        if (upload.shown) out.log = "uploaded " + name + " (" + FormatBytes(total) + ")";
    } else if (longRunning && (!upload.shown || now - upload.lastLog >= kLogEvery)) {
        char percent[16];
        snprintf(percent, sizeof(percent), "%d%%", ProgressPercent(done, total));
        out.log = "uploading " + name + ": " + percent + " of " + FormatBytes(total) + " at " +
                  FormatBytes(rate > 0 ? static_cast<uint64_t>(rate) : 0) + "/s";
        upload.shown = true;
        upload.lastLog = now;
    }
    if (finished) uploads_.erase(found);
    return out;
}

ProgressView::Output ProgressView::Abandon(const std::string& name) {
    Output out;
    auto found = uploads_.find(name);
    if (found == uploads_.end()) return out;
    if (found->second.shown) out.terminal = Break();
    uploads_.erase(found);
    return out;
}

std::string ProgressView::Break() {
    if (!lineOpen_) return "";
    lineOpen_ = false;
    return "\n";
}
