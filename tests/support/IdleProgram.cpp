// The program of the test bundles: idles until terminated, or for two minutes.
#include <unistd.h>

#include <csignal>
#include <string_view>

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (std::string_view(argv[i]) == "stubborn") std::signal(SIGTERM, SIG_IGN);
    sleep(120);
    return 0;
}
