// A transfer function on its way into the tables of a brick structure.
#pragma once

// What the workers read while SetColorTables runs.
struct IP_VOLRC_ColorSource {
    const unsigned int* const* colours;  // 16 tables
    int table_size;                      // entries to copy
    int num_before;                      // of them, how many lie before the pointers
    int num_stale;                       // entries to clear behind them
    unsigned short luminosity[256];      // of each opacity byte
    int threshold;                       // 1/256 of a table's greatest luminosity
};
