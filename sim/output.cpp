#include "sim/output.h"

#include "sim/format/message.h"

#include <glib.h>
#include <glib/gstdio.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t OwnerOnly = 0600;
constexpr size_t CopyBufferSize = 64 * 1024;

// What a file that is not regular is, as a person would name it.
const char *kindOf(mode_t mode)
{
    if (S_ISDIR(mode))
        return "a directory";
    if (S_ISCHR(mode))
        return "a character device";
    if (S_ISBLK(mode))
        return "a block device";
    if (S_ISFIFO(mode))
        return "a FIFO";
    if (S_ISSOCK(mode))
        return "a socket";
    return "not a regular file";
}

} // namespace

std::string outputRefusal(const std::string &path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0)
        return ""; // nothing there yet, or nothing kep-sim can look at: creating it says what is wrong
    if (S_ISREG(status.st_mode) || S_ISLNK(status.st_mode))
        return "";
    return shown(path) + " is " + kindOf(status.st_mode) + ": kep-sim writes only regular files";
}

OutputFile::~OutputFile()
{
    if (m_fd >= 0)
        close(m_fd);
    if (!m_temporary.empty())
        g_unlink(m_temporary.c_str());
}

bool OutputFile::failed(const char *doing)
{
    const int code = errno;
    fail(std::string("cannot ") + doing + " " + shown(m_path) + ": " + g_strerror(code));
    return false;
}

bool OutputFile::create()
{
    g_autofree char *directory = g_path_get_dirname(m_path.c_str());
    g_autofree char *name = g_path_get_basename(m_path.c_str());
    g_autofree char *pattern = g_strdup_printf(".%s.XXXXXX", name);
    g_autofree char *temporary = g_build_filename(directory, pattern, nullptr);
    m_fd = g_mkstemp_full(temporary, O_RDWR | O_CLOEXEC, OwnerOnly);
    if (m_fd < 0)
        return failed("write");
    m_temporary = temporary;
    if (fchmod(m_fd, OwnerOnly) != 0) // the umask may have taken more
        return failed("write");
    return true;
}

bool OutputFile::append(std::string_view text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(m_fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed("write");
        written += size_t(count);
    }
    m_unsynced = true;
    return true;
}

bool OutputFile::appendCopyOf(const OutputFile &other)
{
    char buffer[CopyBufferSize];
    off_t offset = 0;
    while (true) {
        const ssize_t count = pread(other.m_fd, buffer, sizeof buffer, offset);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed("copy into");
        if (count == 0)
            return true;
        if (!append(std::string_view(buffer, size_t(count))))
            return false;
        offset += count;
    }
}

bool OutputFile::readLines(const std::function<bool(std::string_view line)> &take)
{
    char buffer[CopyBufferSize];
    std::string line;
    off_t offset = 0;
    while (true) {
        const ssize_t count = pread(m_fd, buffer, sizeof buffer, offset);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return failed("read back");
        if (count == 0)
            break;
        offset += count;
        for (ssize_t index = 0; index < count; ++index) {
            if (buffer[index] != '\n') {
                line += buffer[index];
                continue;
            }
            if (!take(line))
                return false;
            line.clear();
        }
    }
    return take(line);
}

bool OutputFile::sync()
{
    if (!m_unsynced)
        return true;
    if (fdatasync(m_fd) != 0)
        return failed("write");
    m_unsynced = false;
    return true;
}

bool OutputFile::place()
{
    if (!sync())
        return false;
    const std::string refusal = outputRefusal(m_path); // something put there since it was looked at
    if (!refusal.empty()) {
        fail(refusal);
        return false;
    }
    if (g_rename(m_temporary.c_str(), m_path.c_str()) != 0)
        return failed("write");
    m_temporary.clear();
    // the new name on the disk too
    g_autofree char *directory = g_path_get_dirname(m_path.c_str());
    const int directoryFd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directoryFd < 0)
        return failed("write");
    if (fsync(directoryFd) != 0) {
        const int code = errno;
        close(directoryFd);
        errno = code;
        return failed("write");
    }
    close(directoryFd);
    return true;
}
