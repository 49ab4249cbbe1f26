#include "archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace diagnosis {

Archive::Archive(std::string archivePath)
    : path(std::move(archivePath)), writer(::archive_write_new(), ::archive_write_free) {
    constexpr mode_t forItsUser = 0600;
    file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, forItsUser);
    if (file < 0) {
        throw std::runtime_error("cannot create '" + path + "': " + std::strerror(errno));
    }
    try {
        Check(::archive_write_add_filter_gzip(writer.get()));
        Check(::archive_write_set_format_pax_restricted(writer.get()));
        Check(::archive_write_open_fd(writer.get(), file));
    } catch (...) {
        ::close(file);
        ::unlink(path.c_str());
        throw;
    }
}

Archive::~Archive() {
    writer.reset(); // before its file
    ::close(file);
    if (!isFinished) {
        ::unlink(path.c_str());
    }
}

void Archive::Add(const std::string& name, std::string_view content) {
    const std::unique_ptr<::archive_entry, void (*)(::archive_entry*)> entry(::archive_entry_new(),
                                                                             ::archive_entry_free);
    constexpr mode_t readable = 0644;
    ::archive_entry_set_pathname(entry.get(), name.c_str());
    ::archive_entry_set_filetype(entry.get(), AE_IFREG);
    ::archive_entry_set_perm(entry.get(), readable);
    ::archive_entry_set_mtime(entry.get(), std::time(nullptr), 0);
    ::archive_entry_set_size(entry.get(), static_cast<la_int64_t>(content.size()));
    Check(::archive_write_header(writer.get(), entry.get()));
    if (::archive_write_data(writer.get(), content.data(), content.size()) < 0) {
        Check(ARCHIVE_FATAL);
    }
}

void Archive::Finish() {
    Check(::archive_write_close(writer.get()));
    isFinished = true;
}

void Archive::Check(int result) const {
    if (result < ARCHIVE_OK) {
        const char* const reason = ::archive_error_string(writer.get());
        throw std::runtime_error("cannot write '" + path + "': " + (reason == nullptr ? "no reason" : reason));
    }
}

} // namespace diagnosis
