// The file filter of a mount whose real-time upload is limited to some
// processes (--realtime-process).
#ifndef SKARVO_CLI_REALTIME_FILTER_H_
#define SKARVO_CLI_REALTIME_FILTER_H_

#include <memory>
#include <string>
#include <vector>

#include "libfilesystem/filter.h"

// Names the listed processes, and only them, as real-time uploaders; asks
// the filter it replaces which files stay local. Names are compared without
// regard to case, as the volume reports process names in lower case.
class RealtimeProcessFilter : public IFSFilter {
  public:
    RealtimeProcessFilter(std::shared_ptr<IFSFilter> previous,
                          const std::vector<std::string>& names);

    bool IsOfflineOnly(const char* processName, const char* fileName) override;
    bool IsRealtimeUploadProcess(const char* processName) noexcept override;

  private:
    std::shared_ptr<IFSFilter> previous_;
    std::vector<std::string> names_;  // compared without regard to case
};

#endif  // SKARVO_CLI_REALTIME_FILTER_H_
