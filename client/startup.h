#pragma once

// The program's entry function: start-up, the event loop and the orderly shutdown. Returns
// the event loop's exit code.
int runClient(int argc, char** argv);

// The two media-library lines written to the debug channel at start-up.
void logMediaLibrary(unsigned version, const char* configuration);

// The application's style sheet, as runClient sets it; for tools that show the windows alone.
const char* applicationStyleSheetText();
