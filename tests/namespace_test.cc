// Namespace changes on nodes and remote changes reported by a protocol.
#include <algorithm>
#include <filesystem>
#include <future>
#include <set>
#include <thread>

#include "support/volume_fixture.h"

namespace {

using Op = TestRemote::Op;

class NamespaceTest : public VolumeFixture {
  protected:
    void SetUp() override {
        VolumeFixture::SetUp();
        protocol_->AddFile("/docs/a.txt", "aaa");
        protocol_->AddFile("/docs/sub/deep.txt", "deep");
        protocol_->AddFolder("/other");
        ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
    }
};

TEST_F(NamespaceTest, CreatingAFolderAsksTheRemoteFirst) {
    auto docs = Node("/docs");
    notifier_.Clear();
    ASSERT_EQ(docs->CreateDirectory("New"), SUCCESS);
    EXPECT_TRUE(std::filesystem::is_directory(protocol_->Path("/docs/New")));
    EXPECT_TRUE(List("/docs").count("New"));
    EXPECT_EQ(notifier_.Events(), (std::vector<std::string>{"NE_MKDIR docs\\New"}));

    // A name that differs only in case is taken, and the remote is not asked.
    protocol_->ResetCounters();
    EXPECT_EQ(docs->CreateDirectory("NEW"), ALREADY_EXISTS);
    EXPECT_EQ(protocol_->Calls(Op::CreateFolder), 0);

    protocol_->FailNext(Op::CreateFolder, ACCESS_DENIED);
    EXPECT_EQ(docs->CreateDirectory("Refused"), ACCESS_DENIED);
    EXPECT_FALSE(List("/docs").count("Refused"));
    ASSERT_EQ(events_->Errors().size(), 1u);
    EXPECT_EQ(events_->Errors()[0].kind, FSEVENT_CREATE_FOLDER_FAILED);
    EXPECT_EQ(events_->Errors()[0].localPath, "/mnt/test/docs");
}

TEST_F(NamespaceTest, DeletingChangesTheTreeOnlyAfterTheRemote) {
    auto file = Node("/docs/a.txt");
    protocol_->FailNext(Op::DeleteItem, SOCK_TIMEOUT);
    EXPECT_EQ(file->unlink(true), SOCK_TIMEOUT);
    EXPECT_TRUE(Node("/docs/a.txt"));
    EXPECT_TRUE(protocol_->Exists("/docs/a.txt"));
    ASSERT_EQ(events_->Errors().size(), 1u);
    EXPECT_EQ(events_->Errors()[0].kind, FSEVENT_DELETE_FAILED);

    notifier_.Clear();
    EXPECT_EQ(file->unlink(true), SUCCESS);
    EXPECT_FALSE(protocol_->Exists("/docs/a.txt"));
    EXPECT_FALSE(List("/docs").count("a.txt"));
    EXPECT_EQ(notifier_.Events(),
              (std::vector<std::string>{"NE_DELETE docs\\a.txt", "NE_FREESPACE"}));

    auto folder = Node("/docs/sub");
    EXPECT_EQ(folder->unlink(true), SUCCESS);
    EXPECT_FALSE(protocol_->Exists("/docs/sub/deep.txt"));

    // A file never uploaded goes without asking the remote.
    _FS_FILE_V2 record;
    record.name = "draft.txt";
    record.attributes = FILE_ATTRIBUTE_FILE;
    auto draft = Node("/docs")->AddChild(&record, true);
    protocol_->ResetCounters();
    notifier_.Clear();
    EXPECT_EQ(draft->unlink(true), SUCCESS);
    EXPECT_EQ(protocol_->Calls(Op::DeleteItem), 0);
    EXPECT_EQ(notifier_.Events().front(), "NE_DELETE docs\\draft.txt");
}

TEST_F(NamespaceTest, RenamingAFolderDropsItsChildrenUntilListedAgain) {
    auto docs = Node("/docs");
    ASSERT_TRUE(Node("/docs/sub/deep.txt"));
    auto root = Node("/");
    notifier_.Clear();
    ASSERT_EQ(root->RenameFile(docs, std::string("Papers"), "mv"), SUCCESS);
    EXPECT_TRUE(protocol_->Exists("/Papers/sub/deep.txt"));
    EXPECT_EQ(notifier_.Events(), (std::vector<std::string>{"NE_RENAMEFOLDER docs"}));
    EXPECT_EQ(docs->Name(), "Papers");
    EXPECT_EQ(docs->ChildCount(), 2u);  // the marker files only
    protocol_->ResetCounters();
    EXPECT_TRUE(Node("/papers/sub/deep.txt"));
    EXPECT_EQ(protocol_->Calls(Op::ListFolder), 2);  // Papers, then sub
    EXPECT_FALSE(Node("/docs"));
    EXPECT_EQ(events_->Notices().size(), 1u);
}

TEST_F(NamespaceTest, RenamesReplaceTargetsKeepCaseAndFailCleanly) {
    protocol_->AddFile("/docs/b.txt", "bbb");
    auto docs = Node("/docs");
    auto a = Node("/docs/a.txt");
    ASSERT_TRUE(Node("/docs/b.txt"));
    // Save by rename: the new content replaces the old file.
    ASSERT_EQ(docs->RenameFile(a, std::string("b.txt"), "vim"), SUCCESS);
    EXPECT_EQ(protocol_->Contents("/docs/b.txt"), "aaa");
    EXPECT_FALSE(protocol_->Exists("/docs/a.txt"));
    EXPECT_EQ(Node("/docs/b.txt"), a);

    // Only the letter case changes: the node stays and shows the new name.
    ASSERT_EQ(docs->RenameFile(a, std::string("B.TXT"), "mv"), SUCCESS);
    EXPECT_EQ(Node("/docs/b.txt"), a);
    EXPECT_EQ(a->Name(), "B.TXT");
    EXPECT_TRUE(protocol_->Exists("/docs/B.TXT"));

    protocol_->FailNext(Op::RenameItem, SOCK_TIMEOUT);
    EXPECT_EQ(docs->RenameFile(a, std::string("c.txt"), "mv"), SOCK_TIMEOUT);
    EXPECT_EQ(a->Name(), "B.TXT");
    ASSERT_FALSE(events_->Errors().empty());
    EXPECT_EQ(events_->Errors().back().kind, FSEVENT_RENAME_FAILED);
}

// The volume's rename follows rename(2): the target is the final name, and
// what rename(2) refuses leaves both sides untouched.
TEST_F(NamespaceTest, VolumeRenamesFollowRenameTwo) {
    protocol_->AddFile("/full/keep.txt", "keep");
    protocol_->AddFolder("/empty");
    EXPECT_EQ(fs_->Rename("/docs/sub", "/full", "mv"), -ENOTEMPTY);
    EXPECT_TRUE(protocol_->Exists("/full/keep.txt"));
    EXPECT_EQ(fs_->Rename("/docs/a.txt", "/empty", "mv"), -EISDIR);
    EXPECT_EQ(fs_->Rename("/docs/sub", "/docs/a.txt", "mv"), -ENOTDIR);
    EXPECT_EQ(fs_->Rename("/docs/sub", "/empty", "mv"), 0);
    EXPECT_TRUE(protocol_->Exists("/empty/deep.txt"));
    EXPECT_FALSE(protocol_->Exists("/docs/sub"));
}

TEST_F(NamespaceTest, AMoveRemovesRenamesThenAddsInThatOrder) {
    auto a = Node("/docs/a.txt");
    auto other = Node("/other");
    ASSERT_TRUE(other);
    notifier_.Clear();
    ASSERT_EQ(a->MoveFile(a, other, "moved.txt"), SUCCESS);
    EXPECT_TRUE(protocol_->Exists("/other/moved.txt"));
    EXPECT_EQ(notifier_.Events(),
              (std::vector<std::string>{"NE_DELETE docs\\a.txt", "NE_RENAMEITEM other\\a.txt",
                                        "NE_CREATE other\\moved.txt"}));
    EXPECT_EQ(Node("/other/moved.txt"), a);
    EXPECT_FALSE(Node("/docs/a.txt"));

    protocol_->FailNext(Op::MoveFolder, SOCK_TIMEOUT);
    auto sub = Node("/docs/sub");
    EXPECT_EQ(sub->MoveFile(sub, other, ""), SOCK_TIMEOUT);
    EXPECT_TRUE(Node("/docs/sub"));
    ASSERT_FALSE(events_->Errors().empty());
    EXPECT_EQ(events_->Errors().back().kind, FSEVENT_MOVE_FAILED);
    EXPECT_EQ(sub->MoveFile(sub, other, ""), SUCCESS);
    EXPECT_TRUE(Node("/other/sub/deep.txt"));
}

// A folder rename holds the volume's place gate while it changes its parent's
// children; a move into that parent must not hold the parent while it waits
// for the gate.
TEST_F(NamespaceTest, AFolderRenameAndAMoveIntoItsParentBothEnd) {
    protocol_->AddFile("/other/x.txt", "x");
    ASSERT_TRUE(Node("/other/x.txt"));
    protocol_->Pause(Op::RenameItem);
    auto rename =
        std::async(std::launch::async, [&] { return fs_->Rename("/docs", "/Docs", "mv"); });
    ASSERT_TRUE(protocol_->WaitForPaused(Op::RenameItem, 1));
    auto move =
        std::async(std::launch::async, [&] { return fs_->Rename("/other/x.txt", "/x.txt", "mv"); });
    // Long enough for the move to reach the gate.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    protocol_->Resume(Op::RenameItem);
    for (auto* done : {&rename, &move}) {
        if (done->wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "the rename and the move wait for each other";
            std::abort();  // the blocked threads cannot be joined
        }
        EXPECT_EQ(done->get(), 0);
    }
    EXPECT_TRUE(protocol_->Exists("/Docs/sub/deep.txt"));
    EXPECT_EQ(protocol_->Contents("/x.txt"), "x");
}

class RemoteChangesTest : public NamespaceTest {
  protected:
    void SetUp() override {
        VolumeFixture::SetUp();
        protocol_->SetCapabilities(PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_REPORTS_CHANGES);
        protocol_->AddFile("/docs/a.txt", "version one");
        protocol_->AddFolder("/unlisted/inner");
        ASSERT_EQ(fs_->AddProtocol(protocol_, "remote"), SUCCESS);
        ASSERT_EQ(fs_->SetConfiguration(R"({"fs": {"changes": "0"}})"), SUCCESS);
        ASSERT_TRUE(Node("/docs/a.txt"));
        // The seeding is reported too; once a later change has come, it has.
        protocol_->AddFile("/seeded", "");
        ASSERT_TRUE(PollUntil([&] { return Node("/seeded") != nullptr; }));
    }
    // Polls (every miss does) until `condition` holds: the remote reports a
    // change a moment after it was made.
    bool PollUntil(const std::function<bool()>& condition) {
        return WaitUntil([&] { return !Node("/no-such-name") && condition(); });
    }
};

TEST_F(RemoteChangesTest, AddedRemovedAndRefreshReachListedFolders) {
    protocol_->AddFile("/unlisted/inner/ignored.txt", "i");
    protocol_->AddFile("/docs/new.txt", "n");
    EXPECT_TRUE(PollUntil([&] { return List("/docs").count("new.txt") == 1; }));
    notifier_.Clear();
    protocol_->Remove("/docs/new.txt");
    EXPECT_TRUE(PollUntil([&] { return List("/docs").count("new.txt") == 0; }));
    const auto events = notifier_.Events();
    EXPECT_EQ(std::count(events.begin(), events.end(), "NE_DELETE docs\\new.txt"), 1);

    // A refresh lists the folder now, however fresh its listing.
    protocol_->QueueRefresh("/docs");
    protocol_->QueueRefresh("/no-such-folder");  // not in the tree: nothing to refresh
    protocol_->ResetCounters();
    EXPECT_TRUE(PollUntil([&] { return protocol_->Calls(Op::ListFolder) > 0; }));
    EXPECT_EQ(protocol_->Calls(Op::ListFolder), 1);
}

TEST_F(RemoteChangesTest, AChangedFileIsReadAfresh) {
    auto a = Node("/docs/a.txt");
    EXPECT_EQ(ReadNode(a, 0, 100), "version one");
    protocol_->AddFile("/docs/a.txt", "version two, longer");
    EXPECT_TRUE(PollUntil([&] { return a->Info()->size == 19; }));
    EXPECT_EQ(ReadNode(a, 0, 100), "version two, longer");
    // Saved the way editors save: a new copy renamed over the old one.
    protocol_->AddFile("/docs/.a.new", "version three");
    std::filesystem::rename(protocol_->Path("/docs/.a.new"), protocol_->Path("/docs/a.txt"));
    EXPECT_TRUE(PollUntil([&] { return a->Info()->size == 13; }));
    EXPECT_EQ(ReadNode(a, 0, 100), "version three");
}

TEST_F(RemoteChangesTest, LocalWritesWinOverARemoteChange) {
    auto a = Node("/docs/a.txt");
    auto handle = OpenNode(a, 'w', "editor");
    unsigned long written = 0;
    ASSERT_EQ(a->WriteFile(handle.get(), "LOCAL", 5, &written, 0, nullptr), SUCCESS);
    protocol_->AddFile("/docs/a.txt", "remote edit!");
    protocol_->AddFile("/docs/later.txt", "reported after the edit");
    EXPECT_TRUE(PollUntil([&] { return List("/docs").count("later.txt") == 1; }));
    EXPECT_EQ(a->Info()->size, 11);  // still the local size
    a->Handles().CloseHandle(handle.get());
    // The written block stays; only clean data was dropped.
    EXPECT_EQ(ReadNode(a, 0, 5), "LOCAL");
}

}  // namespace
