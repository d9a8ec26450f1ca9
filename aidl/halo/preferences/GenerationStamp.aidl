package halo.preferences;

// Where a read stands in the generation table: the key's slot and the two generations read right
// after the value. A slot of -1 means the answer must not be cached.
parcelable GenerationStamp {
    int slot;
    long globalGeneration;
    long slotGeneration;
}
