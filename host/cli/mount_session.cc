#include "cli/mount_session.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli/configuration.h"
#include "cli/control_command.h"
#include "cli/control_socket.h"
#include "cli/crash_recovery.h"
#include "cli/mount_checks.h"
#include "cli/realtime_filter.h"
#include "cli/remote_schemes.h"
#include "cli/run_loop.h"
#include "cli/unmount_command.h"
#include "cli/upload_events.h"
#include "cli/volume_status.h"
#include "common/freed_memory.h"
#include "common/status.h"
#include "libfilesystem/entry_points.h"
#include "services/disk_cache.h"
#include "services/job_queue.h"
#include "services/log_levels.h"
#include "services/logger.h"

namespace {

constexpr char kProduct[] = "skarvo";

sigset_t StopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

int Fail(const std::string& line) {
    return CommandFailed(1, line);
}

// The mounted volume as the run loop drives it, through the library's entry
// points.
class LibraryVolume : public VolumeControl {
  public:
    LibraryVolume(std::string mountPoint, DiskCache* cache, UploadEvents* events,
                  StopNotice* stopping)
        : mountPoint_(std::move(mountPoint)), cache_(cache), events_(events), stopping_(stopping) {}

    // A stop signal also ends the remotes' own waits, so that nothing holds
    // the unmount up.
    bool WaitForSignal(std::chrono::milliseconds timeout) override {
        const sigset_t set = StopSignals();
        struct timespec wait {};
        wait.tv_sec = static_cast<time_t>(timeout.count() / 1000);
        wait.tv_nsec = static_cast<long>(timeout.count() % 1000) * 1000000;
        if (sigtimedwait(&set, nullptr, &wait) <= 0) return false;
        stopping_->Stop();
        return true;
    }
    AERROR Unmount(bool force) override { return ::Unmount(mountPoint_.c_str(), force); }
    bool IsMounted() override { return FS_GetFileSystemImpl(mountPoint_.c_str()) != nullptr; }
    int CountUploads() override {
        IFileSystem_V2* fs = FS_GetFileSystemImpl(mountPoint_.c_str());
        return fs != nullptr ? fs->CountUploadings() : 0;
    }
    uint64_t UnsentBytes() override {
        unsigned long long used = 0;
        unsigned long long unsent = 0;
        if (cache_ == nullptr || cache_->GetUsage(&used, &unsent) != SUCCESS) return 0;
        return unsent;
    }
    void Say(const std::string& line) override {
        if (events_ != nullptr) {
            events_->Say("skarvo: " + line);
        } else {
            fprintf(stderr, "skarvo: %s\n", line.c_str());
        }
    }
    void Forcing() override {
        if (events_ != nullptr) events_->Shutdown();
    }
    // Deleted files' cache entries go here, batched. Measured: after 5,000
    // files created and deleted, 15 MiB of freed heap stayed resident until
    // returned here.
    void Tick() override {
        if (cache_ != nullptr) cache_->RemoveDropped();
        ReturnFreedMemory();
    }

  private:
    const std::string mountPoint_;
    DiskCache* const cache_;
    UploadEvents* const events_;
    StopNotice* const stopping_;
};

std::string MountErrorText(AERROR code, const std::string& point, const MountOptions& options) {
    switch (code) {
        case FS_DRIVER_ERROR:
            return "FUSE is not available; load the fuse module (modprobe fuse) or run inside a "
                   "container with --device /dev/fuse";
        case FS_ALREADY_MOUNTED:
            return point + " is mounted already";
        case JSON_PARSE_FAILED:
            return "the configuration is not valid JSON";
        case FS_MOUNT_ERROR:
            return "mounting at " + point + " failed" +
                   (options.allowOther ? " (as a user, -o allow_other needs user_allow_other in "
                                         "/etc/fuse.conf)"
                                       : "") +
                   "; run with --log-level info for the details";
        default:
            return "mounting at " + point + " failed: " + GetAERRORA(code);
    }
}

// Everything that runs while a volume is mounted, in the order it is torn
// down: the library lets go of the services before they are destroyed.
class Session {
  public:
    Session(const MountOptions& options, MountedHook mounted)
        : options_(options), mountedHook_(std::move(mounted)) {}
    ~Session() { Teardown(); }

    int Run();

  private:
    int Prepare();
    // skarvo's log (standard error, or --log-file) and the library's view of it.
    Status OpenLog();
    // Opens and connects every remote, each shown once, and none holding
    // the mount point.
    Status OpenRemotes();
    // skarvo's own folders must stay out of the volume and out of what it shows.
    Status CheckOwnFolders() const;
    void Recover();
    void ListenForControl();
    void Answer(const std::string& request, const ControlServer::Writer& write);
    int AddRemotes();
    void Teardown();
    void RestoreMountPoint();

    const MountOptions& options_;
    const MountedHook mountedHook_;
    std::string point_;
    std::string cacheFolder_;
    struct stat pointInfo_ {};
    std::string configuration_;
    std::unique_ptr<Logger> logger_;
    std::unique_ptr<LibraryLog> libraryLog_;  // the library's lines, through the table
    std::vector<OpenedRemote> remotes_;
    std::vector<std::string> identities_;
    std::string volumeName_;
    std::unique_ptr<JobQueue> queue_;
    std::shared_ptr<DiskCache> cache_;
    std::shared_ptr<UploadEvents> events_;
    std::unique_ptr<ControlServer> control_;
    const std::shared_ptr<StopNotice> stopping_ = std::make_shared<StopNotice>();
    bool bound_ = false;
    bool mounted_ = false;
};

int Session::Prepare() {
    Status status = CheckMountPoint(options_.mountPoint, &point_);
    if (!status.ok()) return Fail(status.message());
    stat(point_.c_str(), &pointInfo_);
    status = CheckFuseDevice("/dev/fuse");
    if (status.ok()) {
        status = BuildConfiguration(options_.configFile, options_.allowOther, &configuration_);
    }
    if (status.ok()) status = OpenLog();
    if (status.ok()) status = OpenRemotes();
    if (status.ok()) status = CheckOwnFolders();
    if (!status.ok()) return Fail(status.message());
    volumeName_ = !options_.volumeName.empty() ? options_.volumeName
                                               : VolumeNameFromIdentity(identities_.front());

    queue_ = std::make_unique<JobQueue>();
    cacheFolder_ = VolumeCacheDir(options_.cacheDir, volumeName_, identities_);
    status = DiskCache::Create(cacheFolder_, options_.cacheMaxBytes, queue_.get(), logger_.get(),
                               &cache_);
    if (!status.ok()) return Fail(status.message() + "; choose another folder with --cache-dir");
    logger_->Log(LL_INFO, "cache of %s: %s", point_.c_str(), cacheFolder_.c_str());
    return 0;
}

Status Session::OpenLog() {
    if (options_.logFile.empty()) {
        logger_ = std::make_unique<Logger>(options_.logLevel);
    } else {
        const Status opened = Logger::OpenFile(options_.logFile, options_.logLevel, &logger_);
        if (!opened.ok()) return opened;
    }
    libraryLog_ = std::make_unique<LibraryLog>(logger_.get());
    return Status::Ok();
}

Status Session::OpenRemotes() {
    std::set<std::string> seen;
    RemoteOptions remoteOptions = options_.remote;
    remoteOptions.log = logger_.get();
    remoteOptions.stopping = stopping_;
    for (const RemoteArgument& argument : options_.remotes) {
        OpenedRemote remote;
        const Status opened = OpenRemote(argument, remoteOptions, &remote);
        if (!opened.ok()) return opened;
        if (IsSameOrInside(point_, remote.localFolder)) {
            return Status::Error("mount point " + point_ + " lies inside the remote folder " +
                                 remote.localFolder + "; choose a mount point outside it");
        }
        const AERROR connected = remote.protocol->Connect();
        if (connected != SUCCESS) {
            return Status::Error(
                connected, "cannot connect to " + argument.text + ": " + GetAERRORA(connected));
        }
        char identity[4096] = "";
        if (remote.protocol->GetIdentity(identity, sizeof(identity)) != SUCCESS ||
            identity[0] == '\0') {
            snprintf(identity, sizeof(identity), "%s", argument.text.c_str());
        }
        if (!seen.insert(identity).second) {
            return Status::Error("remote " + argument.text + " is given twice (" + identity + ")");
        }
        identities_.push_back(identity);
        remotes_.push_back(std::move(remote));
    }
    return Status::Ok();
}

Status Session::CheckOwnFolders() const {
    const std::pair<const char*, std::string> folders[] = {
        {"--cache-dir", options_.cacheDir}, {"--recovery-dir", options_.upload.recoveryDir}};
    for (const auto& folder : folders) {
        const std::string resolved = ResolvePath(folder.second);
        std::string container = IsSameOrInside(resolved, point_) ? "the mount point " + point_ : "";
        for (const OpenedRemote& remote : remotes_) {
            if (container.empty() && IsSameOrInside(resolved, remote.localFolder)) {
                container = "the remote folder " + remote.localFolder;
            }
        }
        if (!container.empty()) {
            return Status::Error(std::string(folder.first) + " " + folder.second + " lies inside " +
                                 container + "; choose a folder outside it");
        }
    }
    return Status::Ok();
}

int Session::AddRemotes() {
    IFileSystem_V2* volume = FS_GetFileSystemImpl(point_.c_str());
    if (volume != nullptr && !options_.realtimeProcesses.empty()) {
        volume->SetFSFilter(std::make_shared<RealtimeProcessFilter>(volume->GetFSFilter(),
                                                                    options_.realtimeProcesses));
    }
    for (size_t i = 0; i < remotes_.size(); ++i) {
        IFileSystem_V2* fs = FS_GetFileSystemImpl(point_.c_str());
        const std::string& name = options_.remotes[i].text;
        const AERROR added =
            fs != nullptr ? fs->AddProtocol(remotes_[i].protocol, name.c_str()) : FS_INVALID_LETTER;
        if (added != SUCCESS) {
            return Fail("cannot add remote " + name + " to the volume: " + GetAERRORA(added));
        }
    }
    return 0;
}

// Uploads, or saves, what an earlier skarvo on this cache left unsent, and
// says so in one line.
void Session::Recover() {
    std::map<const IProtocol_V2*, std::string> identities;
    std::vector<RecoveryRemote> remotes;
    for (size_t i = 0; i < remotes_.size(); ++i) {
        identities[remotes_[i].protocol.get()] = identities_[i];
        remotes.push_back({identities_[i], options_.remotes[i].text, remotes_[i].protocol.get()});
    }
    cache_->SetRemoteIdentities(identities);
    const RecoveryResult result =
        RecoverUnsentData(cache_.get(), remotes, point_, events_.get(), logger_.get());
    if (result.Files() == 0) return;
    std::string line = "recovered " + std::to_string(result.Files()) +
                       " files that were not uploaded when skarvo last stopped: " +
                       std::to_string(result.uploaded) + " uploaded, " +
                       std::to_string(result.saved) + " saved to the recovery folder " +
                       options_.upload.recoveryDir;
    if (result.dropped > 0) line += ", " + std::to_string(result.dropped) + " deleted meanwhile";
    if (result.kept > 0) line += ", " + std::to_string(result.kept) + " kept in the cache";
    logger_->Log(result.saved + result.kept > 0 ? LL_WARNING : LL_INFO, "%s", line.c_str());
    events_->Say("skarvo: " + line);
}

// One request of the control channel.
void Session::Answer(const std::string& request, const ControlServer::Writer& write) {
    if (request == "status") {
        const Json::Value status =
            VolumeStatus(*cache_, events_->Ledger(), point_, options_.upload.recoveryDir);
        write(Json::writeString(Json::StreamWriterBuilder(), status) + "\n");
    } else if (request == "unmount" || request == "unmount now") {
        UnmountServer server;
        server.mountPoint = point_;
        server.isMounted = [this] { return FS_GetFileSystemImpl(point_.c_str()) != nullptr; };
        server.unsent = [this] { return PendingUploads(*cache_); };
        ServeUnmount(server, request == "unmount now", write);
    } else {
        write("{\"error\": \"unknown request\"}\n");
    }
}

// Serves `skarvo status` and `skarvo unmount`. Without the channel the volume still works; the
// log says why it is missing.
void Session::ListenForControl() {
    std::string path;
    Status status = ControlSocketPath(point_, &path);
    if (status.ok()) {
        status = ControlServer::Start(
            path,
            [this](const std::string& request, const ControlServer::Writer& write) {
                Answer(request, write);
            },
            &control_);
    }
    if (!status.ok()) {
        logger_->Log(LL_WARNING, "skarvo status and unmount will not answer: %s",
                     status.message().c_str());
    }
}

int Session::Run() {
    if (const int failed = Prepare()) return failed;
    events_ = std::make_shared<UploadEvents>(options_.upload, point_, logger_.get(),
                                             !mountedHook_ && isatty(STDERR_FILENO) == 1);
    Recover();

    FS_BindLogger(FS_LOGGER_MAIN, libraryLog_.get());
    FS_BindAsyncQ(queue_.get());
    FS_BindCache(cache_.get());
    bound_ = true;
    FS_Initialize(kProduct);

    IFileSystem_V2* fs = nullptr;
    const AERROR mountResult =
        Mount(point_.c_str(), volumeName_.c_str(), MountTypeFor(options_), &fs, nullptr,
              configuration_.empty() ? nullptr : configuration_.c_str());
    if (mountResult != SUCCESS) return Fail(MountErrorText(mountResult, point_, options_));
    mounted_ = true;

    if (remotes_.size() == 1) {
        // A cookie comes from the protocol that failed; with one remote that
        // is known.
        std::shared_ptr<IProtocol_V2> protocol = remotes_.front().protocol;
        events_->SetCookieDescriber([protocol](void* cookie) {
            char text[1024] = "";
            protocol->DescribeCookie(cookie, text, sizeof(text));
            return std::string(text);
        });
    }
    fs->SetFSEvent(events_);
    LibraryVolume volume(point_, cache_.get(), events_.get(), stopping_.get());
    if (const int failed = AddRemotes()) {
        if (!ForceUnmount(volume)) _exit(failed);
        mounted_ = false;
        return failed;
    }

    ListenForControl();
    std::string names;
    for (const RemoteArgument& argument : options_.remotes)
        names += (names.empty() ? "" : " + ") + argument.text;
    logger_->Log(LL_INFO, "mounted %s at %s", names.c_str(), point_.c_str());
    if (mountedHook_) {
        mountedHook_(cacheFolder_);
    } else {
        volume.Say("mounted " + names + " at " + point_ + "; press Ctrl-C to unmount");
    }

    const RunEnd end = RunUntilUnmounted(volume, point_);
    // The library may still be using the services: nothing can be torn down.
    if (end == RunEnd::kAbandoned) _exit(1);
    mounted_ = false;
    if (end == RunEnd::kUnmountedOutside) {
        logger_->Log(LL_INFO, "%s was unmounted from outside", point_.c_str());
    }
    return 0;
}

void Session::Teardown() {
    stopping_->Stop();
    control_.reset();
    if (mounted_) {
        // A failure after mounting: the volume must not outlive skarvo.
        LibraryVolume volume(point_, cache_.get(), events_.get(), stopping_.get());
        if (!ForceUnmount(volume)) _exit(1);
        mounted_ = false;
    }
    if (bound_) {
        FS_UnbindCache();
        FS_UnbindAsyncQ();
        FS_UnbindLogger();
        bound_ = false;
    }
    for (OpenedRemote& remote : remotes_)
        remote.protocol->Disconnect();
    remotes_.clear();
    if (cache_) {
        cache_->Flush();
        cache_.reset();
    }
    if (queue_) {
        queue_->Stop();
        queue_.reset();
    }
    RestoreMountPoint();
}

// The library removes the mount point when the volume goes away; skarvo
// wants it to exist, so it puts back the folder it found.
void Session::RestoreMountPoint() {
    if (point_.empty() || pointInfo_.st_mode == 0) return;
    struct stat now {};
    if (lstat(point_.c_str(), &now) == 0 || errno != ENOENT) return;
    if (mkdir(point_.c_str(), pointInfo_.st_mode & 07777) != 0) return;
    if (geteuid() == 0 && lchown(point_.c_str(), pointInfo_.st_uid, pointInfo_.st_gid) != 0) {
        fprintf(stderr, "skarvo: cannot give %s back to its owner\n", point_.c_str());
    }
}

}  // namespace

void BlockStopSignals() {
    const sigset_t set = StopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int RunMountCommand(const MountOptions& options, const MountedHook& mounted) {
    Session session(options, mounted);
    return session.Run();
}
