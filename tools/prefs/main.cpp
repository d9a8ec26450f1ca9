// prefs: the command-line client of the preferences service.
#include <string>
#include <vector>

#include "prefs/PrefsTool.h"

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    return Halo::OS::PrefsTool(stdout, stderr).run(words);
}
