#include "tavro-quenda.h"
