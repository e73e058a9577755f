// The executable whose build precompiles the headers of all tests; nothing runs it.
int main() {}
