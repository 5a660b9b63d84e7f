#pragma once

/// The usage text, to standard output.
void PrintUsage(const char* program);

/// Takes one trace option with its value at argv[index]: "-d", "-p", "-o" or its other spelling "-c". True
/// with `index` moved to the value; false for an option without a value and for any other word.
bool DoTraceCmdLineProcessing(int argc, char** argv, int& index);

/// Takes all arguments into the tool's state, which goes on pointing to them; false at the first one that is
/// none.
bool ProcessArguments(int argc, char** argv);
