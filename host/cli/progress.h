// The upload progress display: a bar redrawn in place on a terminal, or
// periodic log lines elsewhere. Only uploads that run for a while are shown,
// so that saving small files stays quiet.
#ifndef SKARVO_CLI_PROGRESS_H_
#define SKARVO_CLI_PROGRESS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

// One line of at most `width` - 1 columns (so the terminal never wraps it):
// "notes/big.iso [#########-----------]  45%  12.5 MiB/s". A name too long
// for the line keeps its end, after "...".
std::string FormatProgressLine(const std::string& name, uint64_t done, uint64_t total, double rate,
                               size_t width);

// Whole percent of `done` in `total`, rounded down, so 100 means finished;
// 100 for an empty file.
int ProgressPercent(uint64_t done, uint64_t total);

// Decides what each progress report shows. Not thread safe; times are given
// by the caller.
class ProgressView {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kShowAfter{2};
    static constexpr std::chrono::seconds kLogEvery{10};

    explicit ProgressView(bool terminal) : terminal_(terminal) {}

    struct Output {
        std::string terminal;  // bytes to write to the terminal as they are
        std::string log;       // a line to log at info level; empty for none
    };

    // A report of the upload of `name`. `width` is the terminal's width.
    Output Update(const std::string& name, uint64_t done, uint64_t total, double rate,
                  Clock::time_point now, size_t width);
    // The upload of `name` stopped without finishing (it failed): forget it,
    // ending its bar line when one is drawn.
    Output Abandon(const std::string& name);
    // Ends a bar line left open, so that other text starts on a line of its own.
    std::string Break();

  private:
    struct Upload {
        Clock::time_point start;
        Clock::time_point lastLog;
        bool shown = false;
    };

    const bool terminal_;
    std::map<std::string, Upload> uploads_;
    bool lineOpen_ = false;  // a bar was drawn and no line end followed it
};

#endif  // SKARVO_CLI_PROGRESS_H_
