// The protocol fuzzer (being written).
