// Runs a fuzz target over corpus files without libFuzzer (any compiler, also
// under qemu): each argument is a file or a directory of files.

// 32-bit targets under qemu see the host's 64-bit inode numbers: without
// this, stat and readdir fail with EOVERFLOW.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif
#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool isDirectory(const std::string& path)
{
    struct stat sb;
    return stat(path.c_str(), &sb) == 0 && S_ISDIR(sb.st_mode);
}

std::vector<std::string> filesOf(const std::string& dir)
{
    std::vector<std::string> out;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr)
        return out;
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name.empty() || name[0] == '.')
            continue;
        std::string path = dir + "/" + name;
        if (!isDirectory(path))
            out.push_back(path);
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (isDirectory(arg)) {
            std::vector<std::string> in = filesOf(arg);
            files.insert(files.end(), in.begin(), in.end());
        } else {
            files.push_back(arg);
        }
    }
    if (files.empty()) {
        fprintf(stderr, "no corpus files\n");
        return 1;
    }
    for (const std::string& path : files) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        printf("%s (%zu bytes)\n", path.c_str(), data.size());
        fflush(stdout);
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("%zu inputs replayed\n", files.size());
    return 0;
}
