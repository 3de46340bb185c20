// The list that the bytes of a tree begin with: what is in the directory, in which order its contents follow.
//
// Pure: knows no file. Entry after entry:
//
//   offset  size  field
//        0     1  kind                1 file, 2 executable file, 3 directory
//        1     8  time of the last change, ns since 1970, signed, big-endian
//        9     8  size in bytes       0 for a directory
//       17     2  length n of the path
//       19     n  path within the tree, parts between slashes; a directory stands before what is in it
#pragma once

#include <QByteArray>

#include <optional>
#include <vector>

struct TreeEntry
{
    QByteArray path; // as Linux has it: any bytes but NUL
    bool isDirectory = false;
    bool isExecutable = false;
    qint64 modifiedNs = 0;
    qint64 size = 0;
};

namespace TreeLimits {
constexpr int listBytes = 8 * 1024 * 1024; // some 100 000 files
constexpr int pathBytes = 4000;
constexpr int depth = 100;
} // namespace TreeLimits

/// Whether bytes may be the name of a file: 1 to 255, no slash and no NUL, neither "." nor "..".
bool isFileName(const QByteArray &name);

QByteArray treeToBytes(const std::vector<TreeEntry> &entries);

/// @param contents how many bytes the files have altogether
/// @return none when the list is damaged, or names a place outside the tree
std::optional<std::vector<TreeEntry>> treeFromBytes(const QByteArray &bytes, qint64 contents);
