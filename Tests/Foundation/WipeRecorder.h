// What is wiped from memory, seen at the moment of wiping: memory that is freed
// must not be looked at.
#pragma once

#include <string>
#include <vector>

/// From now on the content of each block that explicit_bzero wipes is added to
/// `wiped`, until it is null. One thread.
void recordWiping(std::vector<std::string>* wiped);
