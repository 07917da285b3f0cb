// The fault remote: its FAULTS text as the command line takes it, and the
// remote itself wrapped around a local remote in a scratch folder.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cli/remote_schemes.h"
#include "remotes/fault_protocol.h"
#include "remotes/local_protocol.h"

namespace fs = std::filesystem;
using std::chrono::milliseconds;

namespace {

// An upload source serving `data`, counting the bytes it gave out.
class StringSource : public ICacheIO {
  public:
    explicit StringSource(std::string data) : data_(std::move(data)) {}
    AERROR Read(_READDATA* request) override {
        const uint64_t left = data_.size() - std::min<uint64_t>(request->offset, data_.size());
        request->read = static_cast<int64_t>(std::min<uint64_t>(left, request->size));
        memcpy(request->buffer, data_.data() + request->offset, request->read);
        given += request->read;
        return SUCCESS;
    }
    AERROR Write(_WRITEDATA*) override { return NOT_SUPPORTED; }
    int64_t given = 0;

  private:
    std::string data_;
};

class NameList : public IFileList {
  public:
    AERROR AddFile(const _FS_FILE_V2* record) override {
        names.push_back(record->name);
        return SUCCESS;
    }
    std::vector<std::string> names;
};

class Fetched : public IFetchCallback {
  public:
    AERROR FetchWrite(long long, const char* data, long size, long* written) override {
        text.append(data, size);
        if (written != nullptr) *written = size;
        return SUCCESS;
    }
    std::string text;
};

FaultList Faults(const std::string& text) {
    FaultList faults;
    std::string error;
    EXPECT_TRUE(ParseFaultList(text, &faults, &error)) << error;
    return faults;
}

std::string Refusal(const std::string& text) {
    FaultList faults;
    std::string error;
    EXPECT_FALSE(ParseFaultList(text, &faults, &error)) << text;
    return error;
}

class FaultProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char base[] = "/tmp/fault_protocol_test.XXXXXX";
        ASSERT_NE(mkdtemp(base), nullptr);
        root_ = base;
        std::string error;
        local_ = LocalProtocol::Create(root_, &error);
        ASSERT_NE(local_, nullptr) << error;
    }
    void TearDown() override {
        if (local_) local_->Disconnect();
        fs::remove_all(root_);
    }

    std::shared_ptr<FaultProtocol> Wrap(const std::string& text,
                                        std::shared_ptr<StopNotice> stop = nullptr,
                                        milliseconds timeout = milliseconds(30000)) {
        return std::make_shared<FaultProtocol>(local_, Faults(text), timeout, stop, nullptr);
    }

    AERROR Upload(IProtocol_V2& protocol, const std::string& name, const std::string& data,
                  StringSource* source, void** cookie = nullptr) {
        _FS_FILE_V2 record;
        record.name = name;
        record.size = static_cast<int64_t>(data.size());
        return protocol.UploadItem("/", std::make_shared<_FS_HANDLE>(), source, &record, nullptr,
                                   cookie);
    }

    // Which of `calls` listings of the root fail.
    static std::vector<int> FailingLists(IProtocol_V2& protocol, int calls) {
        std::vector<int> failing;
        for (int i = 0; i < calls; ++i) {
            NameList list;
            if (protocol.ListFolder("/", &list, nullptr) != SUCCESS) failing.push_back(i);
        }
        return failing;
    }

    std::string ReadFile(const std::string& name) {
        std::ifstream in(root_ + "/" + name, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string root_;
    std::shared_ptr<LocalProtocol> local_;
};

}  // namespace

TEST(FaultListTest, ParsesItemsAndRefusesBadOnesByName) {
    const FaultList faults = Faults(
        "all=0.1,upload=0.3:SOCK_CONNECTION_REFUSED,latency=20ms,latency=get:2s,"
        "hang=list,seed=42");
    EXPECT_EQ(faults.seed, 42u);
    EXPECT_DOUBLE_EQ(faults.Of(FaultOp::kUpload).fraction, 0.3);
    EXPECT_EQ(faults.Of(FaultOp::kUpload).error, SOCK_CONNECTION_REFUSED);
    EXPECT_DOUBLE_EQ(faults.Of(FaultOp::kSetTime).fraction, 0.1);
    EXPECT_EQ(faults.Of(FaultOp::kSetTime).error, SOCK_REMOTE_HOST_CLOSED);
    EXPECT_EQ(faults.Of(FaultOp::kMove).latency, milliseconds(20));
    EXPECT_EQ(faults.Of(FaultOp::kGet).latency, milliseconds(2000));
    EXPECT_TRUE(faults.Of(FaultOp::kList).hang);
    EXPECT_FALSE(faults.Of(FaultOp::kGet).hang);
    // Later items win.
    EXPECT_DOUBLE_EQ(Faults("upload=0.5,all=0").Of(FaultOp::kUpload).fraction, 0);

    EXPECT_NE(Refusal("upload=1.5").find("'upload=1.5'"), std::string::npos);
    EXPECT_NE(Refusal("upload=0.3:NO_SUCH").find("NO_SUCH"), std::string::npos);
    EXPECT_NE(Refusal("upload=0.3:SUCCESS").find("SUCCESS"), std::string::npos);
    EXPECT_NE(Refusal("copy=0.1").find("known: list, get"), std::string::npos);
    for (const char* bad : {"", "upload", "=0.1", "upload=0.1,", "latency=5", "latency=-1ms",
                            "latency=2h", "hang=all:1s", "seed=x", "seed=-1", "upload=0.1x"}) {
        Refusal(bad);
    }
}

TEST(FaultListTest, RemoteArgumentsSplitWhereTheWrappedRemoteBegins) {
    RemoteArgument argument;
    std::string error;
    ASSERT_TRUE(ParseRemote("fault:upload=0.3:SOCK_TIMEOUT,seed=7:fault:list=1:local:/srv/x",
                            &argument, &error))
        << error;
    EXPECT_EQ(argument.scheme->name, std::string("fault"));
    std::string faults;
    std::string remote;
    const auto isScheme = [](const std::string& name) { return FindRemoteScheme(name) != nullptr; };
    ASSERT_TRUE(SplitFaultLocation(argument.location, isScheme, &faults, &remote));
    EXPECT_EQ(faults, "upload=0.3:SOCK_TIMEOUT,seed=7");
    EXPECT_EQ(remote, "fault:list=1:local:/srv/x");

    for (const char* bad : {"fault:upload=0.3", "fault:upload=2:local:/x", "fault:upload=1:ftp:/x",
                            "fault:upload=1:fault:list=x:local:/x"}) {
        EXPECT_FALSE(ParseRemote(bad, &argument, &error)) << bad;
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
}

TEST_F(FaultProtocolTest, ForwardsEveryOperationAndTheWrappedRemotesCookies) {
    auto protocol = Wrap("seed=3,mkdir=0");
    char identity[4096];
    ASSERT_EQ(protocol->GetIdentity(identity, sizeof identity), SUCCESS);
    EXPECT_EQ(std::string(identity),
              "fault:seed=3,mkdir=0:" + std::string("local:") + local_->Root());

    StringSource source("hello");
    ASSERT_EQ(Upload(*protocol, "a.txt", "hello", &source), SUCCESS);
    _FS_FILE_V2 folder;
    folder.name = "docs";
    ASSERT_EQ(protocol->CreateFolder("/", &folder, nullptr), SUCCESS);
    _FS_FILE_V2 item;
    ASSERT_EQ(protocol->GetItem("/a.txt", &item, nullptr), SUCCESS);
    item.name = "b.txt";
    ASSERT_EQ(protocol->RenameItem("/a.txt", "/", &item, nullptr), SUCCESS);
    ASSERT_EQ(protocol->MoveItem("/b.txt", "/docs", &item, nullptr), SUCCESS);
    Fetched fetched;
    ASSERT_EQ(
        protocol->Download("/docs/b.txt", 1, 3, std::make_shared<_FS_HANDLE>(), &fetched, nullptr),
        SUCCESS);
    EXPECT_EQ(fetched.text, "ell");
    NameList list;
    ASSERT_EQ(protocol->ListFolder("/docs", &list, nullptr), SUCCESS);
    EXPECT_EQ(list.names, std::vector<std::string>{"b.txt"});
    EXPECT_EQ(protocol->GetCapabilities(), local_->GetCapabilities());

    // A failure of the wrapped remote keeps its error object, and its text.
    void* cookie = nullptr;
    EXPECT_EQ(protocol->GetItem("/missing", &item, &cookie), FILE_NOT_FOUND);
    ASSERT_NE(cookie, nullptr);
    char text[256] = "";
    protocol->DescribeCookie(cookie, text, sizeof text);
    EXPECT_NE(std::string(text).find("/missing"), std::string::npos) << text;
    protocol->ReleaseCookie(cookie);
}

TEST_F(FaultProtocolTest, FailsTheChosenShareOfCallsTheSameWayForTheSameSeed) {
    auto protocol = Wrap("list=0.3:SOCK_CONNECTION_REFUSED,seed=7");
    void* cookie = nullptr;
    NameList list;
    AERROR code = SUCCESS;
    while (code == SUCCESS)
        code = protocol->ListFolder("/", &list, &cookie);
    EXPECT_EQ(code, SOCK_CONNECTION_REFUSED);
    char text[256] = "";
    protocol->DescribeCookie(cookie, text, sizeof text);
    EXPECT_EQ(std::string(text), "injected fault: list of / failed (SOCK_CONNECTION_REFUSED)");
    protocol->ReleaseCookie(cookie);  // its own object: the local remote never sees it

    const std::vector<int> failing = FailingLists(*Wrap("list=0.3,seed=7"), 1000);
    EXPECT_GT(failing.size(), 250u);
    EXPECT_LT(failing.size(), 350u);
    EXPECT_EQ(FailingLists(*Wrap("list=0.3,seed=7"), 1000), failing);
    EXPECT_NE(FailingLists(*Wrap("list=0.3,seed=8"), 1000), failing);
    EXPECT_TRUE(FailingLists(*Wrap("list=0,upload=1"), 50).empty());

    // From four threads at once, the first 1000 draws are still the same ones.
    auto shared = Wrap("list=0.3,seed=7");
    std::atomic<size_t> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] { failures += FailingLists(*shared, 250).size(); });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures.load(), failing.size());
}

TEST_F(FaultProtocolTest, AFailedUploadNeverLeavesAPartialFileUnderTheName) {
    std::ofstream(root_ + "/kept.txt") << "old content";
    auto protocol = Wrap("upload=1:SOCK_TIMEOUT,seed=5");
    const std::string data(300000, 'x');
    int partWay = 0;
    int atOnce = 0;
    for (int i = 0; i < 20; ++i) {
        StringSource source(data);
        void* cookie = nullptr;
        ASSERT_EQ(Upload(*protocol, i % 2 == 0 ? "kept.txt" : "new.txt", data, &source, &cookie),
                  SOCK_TIMEOUT);
        protocol->ReleaseCookie(cookie);
        EXPECT_LT(source.given, static_cast<int64_t>(data.size()));
        (source.given > 0 ? partWay : atOnce)++;
    }
    EXPECT_GT(partWay, 0);
    EXPECT_GT(atOnce, 0);
    EXPECT_EQ(ReadFile("kept.txt"), "old content");
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(root_))
        names.push_back(entry.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"kept.txt"});
}

TEST_F(FaultProtocolTest, HungCallsEndAtTheTimeOutOrAtOnceWhenSkarvoStops) {
    NameList list;
    void* cookie = nullptr;
    auto timed = Wrap("hang=list", nullptr, milliseconds(200));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(timed->ListFolder("/", &list, &cookie), SOCK_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(200));
    ASSERT_NE(cookie, nullptr);
    timed->ReleaseCookie(cookie);

    auto stop = std::make_shared<StopNotice>();
    auto hanging = Wrap("hang=list,latency=get:100ms", stop, milliseconds(60000));
    _FS_FILE_V2 item;
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(hanging->GetItem("/", &item, nullptr), SUCCESS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(100));
    std::thread stopper([&] {
        std::this_thread::sleep_for(milliseconds(100));
        stop->Stop();
    });
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(hanging->ListFolder("/", &list, nullptr), SOCK_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(5000));
    stopper.join();
    EXPECT_TRUE(list.names.empty());
}
