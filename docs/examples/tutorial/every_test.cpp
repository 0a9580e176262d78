#include <quorval/runtime/testing.h>

#include <cstdint>
#include <iostream>
#include <vector>

int main()
{
    Quorval::Harness harness(PLUGIN_FILE, "Every", {{"n", 3}});
    harness.start();

    std::vector<std::int64_t> passed;
    for (std::int64_t value = 1; value <= 7; ++value) {
        harness.feed("in", value);
        harness.step();
        if (harness.is_triggered("out")) {
            passed.push_back(harness.output<std::int64_t>("out"));
        }
    }

    if (passed != std::vector<std::int64_t>{3, 6}) {
        std::cerr << "other values were passed on\n";
        return 1;
    }
    return 0;
}
