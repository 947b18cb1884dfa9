#include "testglobalstate.h"

TestGlobalState::TestGlobalState() : previous(globalState) {
    globalState = this;
}

TestGlobalState::~TestGlobalState() {
    globalState = previous;
}

void TestGlobalState::changeStatus(QString text, int) {
    statusTexts.append(text);
}
