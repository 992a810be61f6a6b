// Replays stored inputs through a fuzz harness without libFuzzer, so that the
// normal build runs every input that fuzzing kept (tests/fuzz/corpus/<name>)
// and a fault once found stays fixed. Arguments: files or folders of inputs.
#include <dirent.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace {

// The files of a folder in name order, or the argument itself.
std::vector<std::string> inputsOf(const std::string& arg)
{
    std::vector<std::string> files;
    if (DIR* d = opendir(arg.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.')
                files.push_back(arg + "/" + e->d_name);
        closedir(d);
        std::sort(files.begin(), files.end());
    } else {
        files.push_back(arg);
    }
    return files;
}

} // namespace

int main(int argc, char** argv)
{
    // Initialised as libFuzzer would with no corpus folder, so that the
    // harness writes no seeds into the stored corpus.
    int initArgc = 1;
    char** initArgv = argv;
    LLVMFuzzerInitialize(&initArgc, &initArgv);
    long replayed = 0;
    for (int i = 1; i < argc; ++i)
        for (const std::string& file : inputsOf(argv[i])) {
            std::ifstream in(file, std::ios::binary);
            const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++replayed;
        }
    std::printf("replayed %ld inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
