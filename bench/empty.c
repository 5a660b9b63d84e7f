/* The floor under every start: a program that does nothing, linked statically. */
int main(void) { return 0; }
