// Asking the person at the terminal for a secret.
#pragma once

// Writes the prompt to the terminal and reads a line without echo; without a terminal the prompt goes to standard error
// and the line comes from standard input. The result, without the line's end, is a buffer of this unit in locked
// memory, overwritten by the next call; the caller wipes it with mvd_wipepass once it has copied the text. Null when
// there is no input or the line is longer than 4,096 bytes. Throws std::bad_alloc. One thread.
char* mvd_getpass(const char* prompt);

// Wipes the buffer of the last mvd_getpass.
void mvd_wipepass();
