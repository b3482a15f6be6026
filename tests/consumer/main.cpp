#include <mirels/Foundation.h>

#include <cstdio>

int main() {
    mirels::ThreadSafe<int> counter(0);
    counter.syncWrite([](int& value) { value += 41; });
    auto token = mirels::CancellationToken::create([&] { counter.syncWrite([](int& v) { ++v; }); });
    token->cancel();
    std::printf("consumer: %d\n", counter.peek());
    return counter.peek() == 42 ? 0 : 1;
}
