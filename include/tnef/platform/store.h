// The message store in one include: items and item files, message files, messages, stored
// MAPI data, addresses, the received-message builder and the dumps.
#pragma once

#include "tnef/platform/address.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/store_dump.h"
#include "tnef/platform/tf_msgfile.h"
// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)



#pragma GCC visibility pop
