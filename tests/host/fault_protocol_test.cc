// The fault remote: its FAULTS text as the command line takes it, and the
// remote itself wrapped around a local remote in a scratch folder.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cli/remote_schemes.h"
#include "protocol_recorders.h"
#include "remotes/fault_protocol.h"
#include "remotes/local_protocol.h"

namespace fs = std::filesystem;

namespace {

FaultList Faults(const std::string& text) {
    FaultList faults;
    Status status = ParseFaultList(text, &faults);
    EXPECT_TRUE(status.ok()) << status.message();
    return faults;
}

std::string Refusal(const std::string& text) {
    FaultList faults;
    Status status = ParseFaultList(text, &faults);
    EXPECT_FALSE(status.ok()) << text;
    return status.message();
}

class FaultProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char base[] = "/tmp/fault_protocol_test.XXXXXX";
        ASSERT_NE(mkdtemp(base), nullptr);
        root_ = base;
        const Status created = LocalProtocol::Create(root_, &local_);
        ASSERT_TRUE(created.ok()) << created.message();
    }
    void TearDown() override {
        if (local_) local_->Disconnect();
        fs::remove_all(root_);
    }

    std::shared_ptr<FaultProtocol> Wrap(const std::string& text) {
        return std::make_shared<FaultProtocol>(local_, Faults(text), std::chrono::seconds(30),
                                               nullptr, nullptr);
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
            ListRecorder list;
            if (protocol.ListFolder("/", &list, nullptr) != SUCCESS) failing.push_back(i);
        }
        return failing;
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
    EXPECT_EQ(faults.Of(FaultOp::kMove).latency, std::chrono::milliseconds(20));
    EXPECT_EQ(faults.Of(FaultOp::kGet).latency, std::chrono::milliseconds(2000));
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
    Status status =
        ParseRemote("fault:upload=0.3:SOCK_TIMEOUT,seed=7:fault:list=1:local:/srv/x", &argument);
    ASSERT_TRUE(status.ok()) << status.message();
    EXPECT_EQ(argument.scheme->name, std::string("fault"));
    std::string faults;
    std::string remote;
    const auto isScheme = [](const std::string& name) { return FindRemoteScheme(name) != nullptr; };
    ASSERT_TRUE(SplitFaultLocation(argument.location, isScheme, &faults, &remote));
    EXPECT_EQ(faults, "upload=0.3:SOCK_TIMEOUT,seed=7");
    EXPECT_EQ(remote, "fault:list=1:local:/srv/x");

    for (const char* bad : {"fault:upload=0.3", "fault:upload=2:local:/x", "fault:upload=1:ftp:/x",
                            "fault:upload=1:fault:list=x:local:/x"}) {
        status = ParseRemote(bad, &argument);
        EXPECT_FALSE(status.ok()) << bad;
        EXPECT_EQ(status.message().find('\n'), std::string::npos);
    }
}

TEST_F(FaultProtocolTest, FailsTheChosenShareOfCallsTheSameWayForTheSameSeed) {
    auto protocol = Wrap("list=0.3:SOCK_CONNECTION_REFUSED,seed=7");
    void* cookie = nullptr;
    ListRecorder list;
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
    EXPECT_EQ(ReadText(root_ + "/kept.txt"), "old content");
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(root_))
        names.push_back(entry.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"kept.txt"});
}
