#include "startup.h"

int main(int argc, char** argv) {
    return runClient(argc, argv);
}
