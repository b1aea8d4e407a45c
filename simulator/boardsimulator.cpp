#include "boardsimulator.h"
