// Put in front of every file of the product in the fuzz build, so that fuzz.cpp can give each input a product
// in which nothing has happened yet: its variables go to sections of their own, its heap is fuzz.cpp's.
#pragma once

#include <stdlib.h>

#pragma clang section bss = "product_bss" data = "product_data"

void *product_malloc(size_t size);
void *product_calloc(size_t count, size_t size);
void *product_realloc(void *block, size_t size);
void product_free(void *block);
#define malloc  product_malloc
#define calloc  product_calloc
#define realloc product_realloc
#define free    product_free
