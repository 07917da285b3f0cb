#include "support/test_remote.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <stdexcept>

#include "foundation/time_utils.h"
#include "remotes/local_protocol.h"

TestRemote::TestRemote() {
    std::shared_ptr<LocalProtocol> local;
    const Status status = LocalProtocol::Create(dir_.path(), &local);
    if (!status.ok()) throw std::runtime_error(status.message());
    local_ = local;
}

void TestRemote::AddFile(const std::string& path, const std::string& contents,
                         const std::string& modifyTime) {
    AddFolder(path.substr(0, path.rfind('/')));
    WriteFile(Path(path), contents);
    const struct timespec times[2] = {{0, UTIME_OMIT}, {RFC3339ToTM(modifyTime.c_str()), 0}};
    if (!modifyTime.empty()) utimensat(AT_FDCWD, Path(path).c_str(), times, 0);
}

AERROR TestRemote::GetChanges(IFileChanges* sink, void** cookie) {
    return Run(Op::GetChanges, cookie, [&] {
        const AERROR result = local_->GetChanges(sink, cookie);
        std::vector<std::string> refreshes;
        Locked([&] { refreshes.swap(refreshes_); });
        for (const std::string& key : refreshes)
            sink->Refresh(key.c_str());
        return result;
    });
}

void TestRemote::ReleaseCookie(void* cookie) {
    std::unique_lock<std::mutex> lock(mu_);
    auto it = cookies_.find(cookie);
    badReleases_ += it == cookies_.end() && cookie != nullptr;
    if (it == cookies_.end()) return;
    const bool injected = it->second;
    cookies_.erase(it);
    lock.unlock();
    if (injected) delete static_cast<AERROR*>(cookie);
    if (!injected) local_->ReleaseCookie(cookie);
}
