// Asking the person at the terminal for a secret.
#pragma once

// Writes the prompt to the terminal and reads a line without echo. The result is a buffer of this unit, overwritten by
// the next call; the caller wipes it with mvd_wipepass once it has copied the text. Null when there is no terminal or
// no input. One thread.
char* mvd_getpass(const char* prompt);

// Wipes the buffer of the last mvd_getpass.
void mvd_wipepass();
