/* word_table.c - a hash table with open addressing, never more than half full. */
#include "word_table.h"

#include <stdlib.h>
#include <string.h>

enum { FIRST_PLACES = 4096 }; /* a power of two, as every later number is */

static size_t hash(const char* text, size_t length) {
  uint64_t value = 14695981039346656037U; /* FNV-1a */
  for (size_t i = 0; i < length; ++i) {
    value = (value ^ (unsigned char)text[i]) * 1099511628211U;
  }
  return (size_t)(value ^ (value >> 32U));
}

/* Finds the place that holds the word, or the empty one where it belongs. */
static struct word* find(struct word* words, size_t places, const char* text, size_t length) {
  size_t at = hash(text, length) & (places - 1);
  while (words[at].text != NULL &&
         (words[at].length != length || memcmp(words[at].text, text, length) != 0)) {
    at = (at + 1) & (places - 1);
  }
  return &words[at];
}

static int grow(struct word_table* table) {
  const size_t places = 2 * table->places;
  struct word* words = calloc(places, sizeof *words);
  if (words == NULL) {
    return -1;
  }
  for (size_t i = 0; i < table->places; ++i) {
    const struct word* word = &table->words[i];
    if (word->text != NULL) {
      *find(words, places, word->text, word->length) = *word;
    }
  }
  free(table->words);
  table->words = words;
  table->places = places;
  return 0;
}

int word_table_init(struct word_table* table) {
  table->words = calloc(FIRST_PLACES, sizeof *table->words);
  table->places = table->words == NULL ? 0 : FIRST_PLACES;
  table->used = 0;
  return table->words == NULL ? -1 : 0;
}

void word_table_free(struct word_table* table) {
  for (size_t i = 0; i < table->places; ++i) {
    free(table->words[i].text);
  }
  free(table->words);
  *table = (struct word_table){NULL, 0, 0};
}

int word_table_add(struct word_table* table, const char* text, size_t length, uint64_t count) {
  if (table->places == 0 || (2 * table->used >= table->places && grow(table) != 0)) {
    return -1;
  }
  struct word* word = find(table->words, table->places, text, length);
  if (word->text == NULL) {
    char* copy = malloc(length);
    if (copy == NULL) {
      return -1;
    }
    memcpy(copy, text, length);
    *word = (struct word){copy, length, 0};
    ++table->used;
  }
  word->count += count;
  return 0;
}

static int by_count_then_bytes(const void* left, const void* right) {
  const struct word* a = left;
  const struct word* b = right;
  if (a->count != b->count) {
    return a->count > b->count ? -1 : 1;
  }
  const int order = memcmp(a->text, b->text, a->length < b->length ? a->length : b->length);
  return order != 0 ? order : (a->length > b->length) - (a->length < b->length);
}

void word_table_sort(struct word_table* table) {
  size_t kept = 0;
  for (size_t i = 0; i < table->places; ++i) {
    const struct word word = table->words[i];
    table->words[i].text = NULL;
    if (word.text != NULL) {
      table->words[kept++] = word;
    }
  }
  qsort(table->words, kept, sizeof *table->words, by_count_then_bytes);
}
