#include "tests/support/zqserve.h"

#include <filesystem>
#include <unistd.h>

Zqserve::Zqserve() : root(scratch.file("www"))
{
    std::filesystem::create_directory(root);
    const std::string output = scratch.file("serve.out");
    process =
        std::make_unique<Process>(std::vector<std::string>{example("zqserve"), root, "--port", "0",
                                                           "--log", scratch.file("access.log")},
                                  output);
    for (int attempt = 0; attempt < 500 && base.empty(); attempt++) {
        usleep(10000);
        std::string text = read_file(output);
        size_t begin = text.find("http://");
        size_t end = text.find("/\n", begin);
        if (begin != std::string::npos && end != std::string::npos)
            base = text.substr(begin, end - begin);
    }
}
