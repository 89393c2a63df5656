/*
 * word_table.h - how often each word was seen
 *
 * A hash table from a word (bytes, not a string) to its count. One thread at a
 * time uses a table.
 */
#ifndef WORD_TABLE_H
#define WORD_TABLE_H

#include <stddef.h>
#include <stdint.h>

struct word {
  char* text; /* null in an empty place; not terminated */
  size_t length;
  uint64_t count;
};

struct word_table {
  struct word* words; /* `places` of them, of which `used` hold a word */
  size_t places;
  size_t used;
};

/* Makes an empty table. Result: 0, or -1 when memory has run out. */
int word_table_init(struct word_table* table);

/* Frees what the table holds. A table of zeros is left as it is. */
void word_table_free(struct word_table* table);

/* Adds `count` to the word's count; the bytes are copied. Result: 0; -1 when
 * memory has run out, and the table is as before. */
int word_table_add(struct word_table* table, const char* text, size_t length, uint64_t count);

/* Puts the words at places 0 to `used` - 1, the most frequent first, words of the
 * same count by their bytes. The table can only be read and freed afterwards. */
void word_table_sort(struct word_table* table);

#endif
