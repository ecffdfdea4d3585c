// The range table's hash functions, as the hash table knows them.
#pragma once

#include "veskrt/hash_table.h"

namespace vesk::range_table {

// Is it the hash function of a level of a range table?
bool isLevelHash(VeskHashFunction function);

} // namespace vesk::range_table
