// gvexmatch: fully automatic particle picking.
int gvexmatch_main(int argc, char** argv);

int main(int argc, char** argv) { return gvexmatch_main(argc, argv); }
