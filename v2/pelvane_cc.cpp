// Placeholder until the caption dump tool lands.
int main() { return 0; }
