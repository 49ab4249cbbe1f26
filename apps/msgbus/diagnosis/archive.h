#pragma once

#include <memory>
#include <string>
#include <string_view>

struct archive;

namespace diagnosis {

/// A compressed tar file that is being written. Only its user may read it. Unless it is finished, nothing is left of
/// it.
class Archive final {
public:
    /// Creates the file. Throws: std::runtime_error, with a sentence: also when there is something at `archivePath`.
    explicit Archive(std::string archivePath);
    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;
    ~Archive();

    /// Adds a file. Throws: std::runtime_error.
    void Add(const std::string& name, std::string_view content);
    /// Writes the rest. Throws: std::runtime_error. Requires: no other call follows.
    void Finish();

private:
    void Check(int result) const;

    std::string path;
    int file = -1; ///< owned
    std::unique_ptr<::archive, int (*)(::archive*)> writer;
    bool isFinished = false;
};

} // namespace diagnosis
