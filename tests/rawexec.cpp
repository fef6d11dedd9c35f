// Starts a program with an argument vector that QProcess cannot give:
//   rawexec --no-argv0 PROGRAM          argv is empty (not even a path)
//   rawexec PROGRAM ARG...              each ARG may hold \xHH escapes,
//                                       turned into raw bytes
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace {
std::string unescape(const char *text)
{
    std::string out;
    for (const char *p = text; *p; ++p) {
        if (p[0] == '\\' && p[1] == 'x' && p[2] && p[3]) {
            out += static_cast<char>(std::strtol(std::string(p + 2, 2).c_str(), nullptr, 16));
            p += 3;
        } else {
            out += *p;
        }
    }
    return out;
}
} // namespace

int main(int argc, char **argv)
{
    if (argc >= 3 && std::strcmp(argv[1], "--no-argv0") == 0) {
        char *const empty[] = {nullptr};
        execv(argv[2], empty);
        return 127;
    }
    if (argc < 2)
        return 2;
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i)
        words.push_back(i == 1 ? std::string(argv[i]) : unescape(argv[i]));
    std::vector<char *> vector;
    for (std::string &word : words)
        vector.push_back(word.data());
    vector.push_back(nullptr);
    execv(vector[0], vector.data());
    return 127;
}
