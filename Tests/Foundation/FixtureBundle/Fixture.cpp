/// Its address lies in this bundle's code.
extern "C" const void* fixtureAddress();
extern "C" const void* fixtureAddress() { return reinterpret_cast<const void*>(&fixtureAddress); }
