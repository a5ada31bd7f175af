int main() { return 0; }  // replaced by the generator
