#ifndef KEP_SIM_OUTPUT_H
#define KEP_SIM_OUTPUT_H

// A file kep-sim writes for someone else. Only its owner may read it, whatever the umask, and its path
// never shows a half-written file: it is written beside the path under a name of its own, then put in
// place whole. What is written after that goes on at the path.
#include <functional>
#include <string>
#include <string_view>

// Why kep-sim will not write at `path`: something stands there that is not a regular file or a symbolic
// link (a link is replaced, never followed). Empty when it may.
std::string outputRefusal(const std::string &path);

class OutputFile
{
public:
    explicit OutputFile(std::string path)
        : m_path(std::move(path))
    { }
    ~OutputFile(); // a file never put in place is removed
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    // Each gives false, with the problem said, when it fails.
    bool create();                      // beside the path, mode 0600
    bool append(std::string_view text); // at the end
    bool appendCopyOf(const OutputFile &other);
    // Each line written so far, without its line break, to `take`, until it gives false.
    bool readLines(const std::function<bool(std::string_view line)> &take);
    bool sync();  // what was appended since the last sync, on the disk
    bool place(); // synced, then at the path, in place of what was there

    const std::string &path() const { return m_path; }

private:
    bool failed(const char *doing);

    const std::string m_path;
    std::string m_temporary; // the file's name until it is in place
    int m_fd = -1;
    bool m_unsynced = false;
};

#endif
