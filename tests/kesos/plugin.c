/* A library for the tests of the dynamic loader. */

static int* gone;

int kes_plugin_answer(void);
int kes_plugin_answer(void) { return 42; }

/* Where to note that the library was given back. */
void kes_plugin_note_end(int* flag);
void kes_plugin_note_end(int* flag) { gone = flag; }

/* Nobody has this function: only a library whose symbols are bound when they are used can be loaded. */
void kes_plugin_missing(void);
void kes_plugin_use_missing(void);
void kes_plugin_use_missing(void) { kes_plugin_missing(); }

__attribute__((destructor)) static void end(void) {
  if (gone != 0) *gone = 1;
}
