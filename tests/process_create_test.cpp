#include "fault.h"
