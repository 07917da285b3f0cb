#include "support/volume_fixture.h"

#include "export/notify_export_service.h"
#include "foundation/string_utils.h"

void RecordingEvents::Error(int kind, AERROR code, const char* localPath, const char*, void*) {
    std::lock_guard<std::mutex> lock(mutex_);
    errors_.push_back({kind, code, localPath != nullptr ? localPath : ""});
}

void RecordingEvents::Notice(int kind, const char* localPath, const char*, const char*) {
    std::lock_guard<std::mutex> lock(mutex_);
    notices_.push_back({kind, SUCCESS, localPath != nullptr ? localPath : ""});
}

int RecordingEvents::AskUploadFailure(AERROR, const char*, char* answerPath,
                                      unsigned long answerLength) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++questions_;
    if (answer_ == UPLOAD_ANSWER_SAVE && answerPath != nullptr) {
        snprintf(answerPath, answerLength, "%s", savePath_.c_str());
    }
    return answer_;
}

void RecordingEvents::Progress(const char*, unsigned long long, unsigned long long, double) {}

std::vector<RecordingEvents::Report> RecordingEvents::Errors() {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
}

std::vector<RecordingEvents::Report> RecordingEvents::Notices() {
    std::lock_guard<std::mutex> lock(mutex_);
    return notices_;
}

int RecordingEvents::Questions() {
    std::lock_guard<std::mutex> lock(mutex_);
    return questions_;
}

void RecordingEvents::Answer(int answer, std::string savePath) {
    std::lock_guard<std::mutex> lock(mutex_);
    answer_ = answer;
    savePath_ = std::move(savePath);
}

int RecordingNotifier::ChangeNotify(NOTIFYEVENT event, unsigned int, const void* item1,
                                    const void*) {
    std::string text = NotifyExportService::GetEventMsg(event);
    if (item1 != nullptr && event != NE_DRIVE_REMOVE) {
        text += " " + ws2s(static_cast<const wchar_t*>(item1));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(text);
    return 0;
}

std::vector<std::string> RecordingNotifier::Events() {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
}

void RecordingNotifier::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
}

void VolumeFixture::SetUp() {
    FS_BindLogger(FS_LOGGER_MAIN, &log_);
    FS_BindCache(&cache_);
    fs_ = std::make_unique<FileSystem>(L"/mnt/test", "Test", "/mnt/test", features_);
    protocol_ = std::make_shared<TestRemote>();
    events_ = std::make_shared<RecordingEvents>();
    fs_->SetFSEvent(events_);
    fs_->SetNotifier(&notifier_);
}

void VolumeFixture::TearDown() {
    if (fs_) {
        fs_->Finalize();
        fs_->Destroy();
        fs_.reset();
    }
    // Every remote operation's error object is handed back exactly once.
    EXPECT_EQ(protocol_->CookiesOutstanding(), 0);
    EXPECT_EQ(protocol_->BadCookieReleases(), 0);
    FS_UnbindCache();
    FS_UnbindAsyncQ();
    FS_UnbindLogger();
}

std::shared_ptr<File> VolumeFixture::Node(const std::string& path) {
    std::shared_ptr<File> node;
    fs_->GetFile(FileSystem::ToExactPath(path.c_str(), false).c_str(), node);
    return node;
}

std::shared_ptr<_FS_HANDLE_EXT> VolumeFixture::OpenNode(const std::shared_ptr<File>& node,
                                                        char mode, const std::string& process) {
    std::shared_ptr<_FS_HANDLE_EXT> handle;
    EXPECT_EQ(node->Open(mode, 0, 0, process, handle, nullptr), SUCCESS);
    return handle;
}

std::set<std::string> VolumeFixture::List(const std::string& path) {
    std::list<FS_DIR_ENTRY> entries;
    EXPECT_EQ(fs_->ReadDir(path.c_str(), entries, "test"), 0);
    std::set<std::string> names;
    for (const auto& entry : entries)
        names.insert(entry.name);
    return names;
}

std::string VolumeFixture::ReadNode(const std::shared_ptr<File>& node, long long offset,
                                    unsigned long size, AERROR* result) {
    auto handle = OpenNode(node, 'r');
    std::string buffer(size, '\0');
    unsigned long read = 0;
    const AERROR code = node->ReadFile(handle.get(), buffer.data(), size, &read, offset, nullptr);
    if (result != nullptr) *result = code;
    node->Handles().CloseHandle(handle.get());
    buffer.resize(read);
    return buffer;
}
