// A failed assert: the C library prints the file, line, function and condition, then aborts.
#include <cassert>
#include <cstdio>

void checkInventory(int count) {
    assert(count >= 0);
    std::printf("%d items\n", count);
}

int main() {
    checkInventory(-3);
}
