// Replays a corpus through a fuzz target without libFuzzer: every file named
// on the command line, or every regular file of a named directory, is fed to
// LLVMFuzzerTestOneInput once. Builds with any compiler.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static bool readFile(const std::string& path, std::vector<uint8_t>* out)
{
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return false;
    out->clear();
    uint8_t buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        out->insert(out->end(), buf, buf + n);
    bool ok = ferror(f) == 0;
    fclose(f);
    return ok;
}

int main(int argc, char** argv)
{
    std::vector<std::string> files;
    for (int i = 1; i < argc; i++) {
        struct stat st;
        if (stat(argv[i], &st) != 0) {
            fprintf(stderr, "cannot read %s\n", argv[i]);
            return 1;
        }
        if (!S_ISDIR(st.st_mode)) {
            files.push_back(argv[i]);
            continue;
        }
        DIR* d = opendir(argv[i]);
        if (d == nullptr) {
            fprintf(stderr, "cannot list %s\n", argv[i]);
            return 1;
        }
        std::vector<std::string> names;
        while (struct dirent* e = readdir(d)) {
            std::string p = std::string(argv[i]) + "/" + e->d_name;
            if (stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode))
                names.push_back(p);
        }
        closedir(d);
        std::sort(names.begin(), names.end());
        files.insert(files.end(), names.begin(), names.end());
    }
    if (files.empty()) {
        fprintf(stderr, "no inputs\n");
        return 1;
    }
    std::vector<uint8_t> data;
    for (const auto& f : files) {
        if (!readFile(f, &data)) {
            fprintf(stderr, "cannot read %s\n", f.c_str());
            return 1;
        }
        LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    printf("replayed %zu inputs\n", files.size());
    return 0;
}
