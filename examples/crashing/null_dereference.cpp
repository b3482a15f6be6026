// Reads through a null pointer: SIGSEGV, with nothing printed. Only the stack says where.
#include <cstdio>
#include <string>

struct Person {
    std::string name;
};

std::size_t nameLength(const Person* person) {
    return person->name.size();
}

Person* findPerson(const char* /*name*/) {
    return nullptr;  // nobody of that name
}

int main() {
    std::printf("%zu\n", nameLength(findPerson("Ada")));
}
