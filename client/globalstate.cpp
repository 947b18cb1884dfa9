#include "globalstate.h"

IGlobalState* globalState = nullptr;
