// Turning a volume path into its canonical form and finding its node.
#include <algorithm>
#include <deque>

#include "foundation/string_utils.h"
#include "fs/filesystem.h"
#include "tree/file.h"

namespace {

// The non-empty components of a "/"-separated path. Lookups run on every
// request, so this avoids building a regular expression each time.
std::vector<std::string> PathComponents(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        if (end > start) parts.emplace_back(path, start, end - start);
        start = end + 1;
    }
    return parts;
}

}  // namespace

AERROR FileSystem::FindNode(const char* path, std::shared_ptr<File>& out) {
    return GetFile(ToExactPath(path, false).c_str(), out);
}

std::string FileSystem::ToExactPath(const char* path, bool keepCase) {
    std::string text = path != nullptr ? path : "";
    std::replace(text.begin(), text.end(), '\\', '/');
    if (!keepCase) text = FoldName(std::move(text));
    std::deque<std::string> kept;
    for (auto& part : PathComponents(text)) {
        if (part == "..") {
            // Above the root stays at the root.
            if (!kept.empty()) kept.pop_back();
        } else if (part != ".") {
            kept.push_back(std::move(part));
        }
    }
    std::string exact;
    for (const auto& part : kept) {
        if (!exact.empty()) exact += '/';
        exact += part;
    }
    return exact;
}

std::string FileSystem::ToExactPath(const wchar_t* path, bool keepCase) {
    const std::string narrow = ws2s(path != nullptr ? path : L"");
    return ToExactPath(narrow.c_str(), keepCase);
}

std::vector<std::shared_ptr<_FS_PROTOCOL>> FileSystem::Protocols() {
    std::lock_guard<std::mutex> lock(mutex_);
    return protocolOrder_;
}

void FileSystem::PollChanges(_FS_PROTOCOL& entry) {
    if (!entry.protocol ||
        (entry.protocol->GetCapabilities() & PROTOCOL_CAP_REPORTS_CHANGES) == 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(entry.mutex);
    const auto now = std::chrono::steady_clock::now();
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(now - entry.lastChangePoll).count();
    if (static_cast<uint64_t>(elapsed) <= static_cast<uint64_t>(GetConfig().changes_interval)) {
        return;
    }
    void* cookie = nullptr;
    entry.protocol->GetChanges(entry.root.get(), &cookie);
    if (cookie != nullptr) entry.protocol->ReleaseCookie(cookie);
    entry.lastChangePoll = std::chrono::steady_clock::now();
}

bool FileSystem::FindHidden(const std::string& path, std::shared_ptr<File>& out) {
    const size_t slash = path.rfind('/');
    const std::string leaf = slash == std::string::npos ? path : path.substr(slash + 1);
    if (!IsHiddenByFuse(leaf)) return false;
    std::lock_guard<std::mutex> lock(hiddenMutex_);
    auto found = hidden_.find(leaf);
    if (found == hidden_.end()) return false;
    out = found->second;
    return true;
}

void FileSystem::SetHidden(const std::string& name, std::shared_ptr<File> node) {
    std::lock_guard<std::mutex> lock(hiddenMutex_);
    if (node) {
        hidden_[FoldName(name)] = std::move(node);
    } else {
        hidden_.erase(FoldName(name));
    }
}

AERROR FileSystem::GetFile(const char* path, std::shared_ptr<File>& out) {
    if (path == nullptr) return INVALID_PARAMETER;
    // No lock is held while a remote lists a folder or reports changes: a
    // remote that hangs holds up only the lookups that need its answer.
    const auto protocols = Protocols();
    const std::string wanted(path);
    if ((wanted == "/" || wanted.empty()) && protocols.empty()) {
        out.reset();
        return FAILED;
    }
    if (protocols.empty()) return SUCCESS;
    if (FindHidden(wanted, out)) return SUCCESS;
    AERROR result = SUCCESS;
    for (const auto& entry : protocols) {
        if (wanted == "/") {
            out = entry->root;
            return SUCCESS;
        }
        if (GetFile(path, entry->root, out) == SUCCESS) return SUCCESS;
        PollChanges(*entry);
        const AERROR second = GetFile(path, entry->root, out);
        if (second == SUCCESS) return SUCCESS;
        if (second == FILE_NOT_FOUND) {
            result = FILE_NOT_FOUND;
        } else if (second == PATH_NOT_FOUND && result == SUCCESS) {
            result = PATH_NOT_FOUND;
        }
    }
    return result;
}

AERROR FileSystem::GetFile(const char* path, std::shared_ptr<File> root,
                           std::shared_ptr<File>& out) {
    out.reset();
    if (!root || path == nullptr) return FILE_NOT_FOUND;
    const std::vector<std::string> parts = PathComponents(path);
    std::shared_ptr<File> current = root;
    const size_t directories = parts.empty() ? 0 : parts.size() - 1;
    for (size_t i = 0; i < directories; ++i) {
        auto next = current->GetFile(parts[i].c_str(), current);
        if (!next) return PATH_NOT_FOUND;
        current = std::move(next);
    }
    const std::string leaf = parts.empty() ? "" : parts.back();
    out = leaf.empty() ? current : current->GetFile(leaf.c_str(), current);
    return out ? SUCCESS : FILE_NOT_FOUND;
}

AERROR FileSystem::GetParent(const char* path, std::shared_ptr<File>& out) {
    std::vector<std::string> parts = PathComponents(path != nullptr ? path : "");
    if (!parts.empty()) parts.pop_back();
    std::string parent;
    for (const auto& part : parts) {
        if (!parent.empty()) parent += '/';
        parent += part;
    }
    const AERROR result = GetFile(parent.c_str(), out);
    return result == FILE_NOT_FOUND ? PATH_NOT_FOUND : result;
}

std::string FileSystem::GetObjectName(const char* path, const char* separators) {
    const auto parts = split(path != nullptr ? path : "", separators);
    return parts.empty() ? std::string() : parts.back();
}

std::wstring FileSystem::GetObjectName(const wchar_t* path, const wchar_t* separators) {
    const auto parts = split(path != nullptr ? path : L"", separators);
    return parts.empty() ? std::wstring() : parts.back();
}

bool FileSystem::IsOfflineOnly(const char* process, const char* name) {
    auto filter = GetFSFilter();
    return filter ? filter->IsOfflineOnly(process, name) : false;
}
