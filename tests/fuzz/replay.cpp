// Runs a fuzz target once on each file named on its command line, with no
// fuzzing engine: CTest replays the seed corpus as regression cases.
#include "../support/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string bytes = readFile(argv[i]);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
}
