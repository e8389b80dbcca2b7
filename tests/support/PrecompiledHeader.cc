// Carries the precompiled header that all test executables share; it is never run.
int main() { return 0; }
