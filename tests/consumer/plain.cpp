// A host that needs the functions only: neither Thrift's headers nor the broker's class.
#include <broker/vok.h>

#include <cstdio>

int main() {
    std::printf("%s %d\n", vok_GetVersion().c_str(), vok_IsBrokerServerRunning());
}
