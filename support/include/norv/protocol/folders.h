#pragma once

#include "norv/protocol/call.h"

#include <cstdint>
#include <string>
#include <vector>

namespace protocol {

struct Folder {
    std::string path;
    std::string name;
    bool folders = false;  ///< it may hold folders

    static void visit(auto& record, auto&& field) {
        field("path", record.path);
        field("name", record.name);
        field("folders", record.folders);
    }
};

struct FolderList {
    std::vector<Folder> folders;
    bool complete = true;

    static void visit(auto& record, auto&& field) {
        field("Folders", record.folders);
        field("Complete", record.complete);
    }
};

/// The folders in a folder; links are left out.
struct ListFolders {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::FOLDER_LIST;
    using Reply = FolderList;
    std::string path;  ///< empty: the share roots

    static void visit(auto& record, auto&& field) { field("Path", record.path); }
};

struct ExcludeEffect {
    uint64_t kept = 0;  ///< files that would be scanned
    uint64_t left = 0;  ///< files that would be left out
    std::vector<std::string> examples;
    bool complete = false;  ///< all files were counted in time

    static void visit(auto& record, auto&& field) {
        field("Kept", record.kept);
        field("Left", record.left);
        field("Examples", record.examples);
        field("Complete", record.complete);
    }
};

/// What excludes would leave out. All are path lists.
struct PreviewExcludes {
    static constexpr auto KIND = IPCMessage::GET;
    static constexpr auto COMMAND = IPCMessage::EXCLUDE_PREVIEW;
    using Reply = ExcludeEffect;
    std::string scanPaths;
    std::string excludePaths;
    std::string excludePatterns;

    static void visit(auto& record, auto&& field) {
        field("ScanPaths", record.scanPaths);
        field("ExcludePaths", record.excludePaths);
        field("ExcludePatterns", record.excludePatterns);
    }
};

}  // namespace protocol
