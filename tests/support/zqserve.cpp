#include "tests/support/zqserve.h"

#include <filesystem>
#include <unistd.h>

Zqserve::Zqserve() : root(scratch.file("www"))
{
    std::filesystem::create_directory(root);
    process =
        std::make_unique<Process>(std::vector<std::string>{example("zqserve"), root, "--port", "0",
                                                           "--log", scratch.file("access.log")},
                                  scratch.file("serve.out"));
    for (int attempt = 0; attempt < 500 && base.empty(); attempt++) {
        usleep(10000);
        std::string text = messages();
        size_t begin = text.find("http://");
        size_t end = text.find("/\n", begin);
        if (begin != std::string::npos && end != std::string::npos)
            base = text.substr(begin, end - begin);
    }
}
