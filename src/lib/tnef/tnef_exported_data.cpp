#include "tnef/tnef.h"

unsigned char MAPI_DAILY_RECURRENCE[16] = {};
unsigned char MAPI_WEEKLY_RECURRENCE[16] = {};
unsigned char MAPI_MONTHLY_RECURRENCE[20] = {};
unsigned char MAPI_YEARLY_RECURRENCE[20] = {};
