// Folders. They are listed in the order of their names: on a kernel of its own the order
// is whatever the file system likes, and a transcript could not be compared.

#include "sandbox/stand_in/stand_in.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

enum { listings_max = 64 };

/// A folder that is open, with all its entries, in order.
static struct listing {
    DIR *folder;
    struct dirent *entries;
    size_t count;
    size_t next;
} listings[listings_max];

static struct listing *listing_of(const DIR *folder)
{
    for (struct listing *listing = listings; listing < listings + listings_max; ++listing) {
        if (listing->folder == folder)
            return listing;
    }
    fprintf(stderr, "sandbox: too many open folders, or one that was not opened\n");
    abort();
}

static int by_name(const void *a, const void *b)
{
    return strcmp(((const struct dirent *)a)->d_name, ((const struct dirent *)b)->d_name);
}

DIR *stand_in_opendir(const char *path)
{
    DIR *folder = real_opendir(path);
    if (!folder)
        return nullptr;

    struct listing *listing = listing_of(nullptr);
    *listing = {.folder = folder, .entries = nullptr, .count = 0, .next = 0};
    while (const struct dirent *entry = real_readdir64(folder)) {
        const size_t size = (listing->count + 1) * sizeof *entry;
        listing->entries = (struct dirent *)realloc(listing->entries, size);
        memcpy(&listing->entries[listing->count++], entry, entry->d_reclen);
    }
    qsort(listing->entries, listing->count, sizeof *listing->entries, by_name);
    return folder;
}

struct dirent *stand_in_readdir(DIR *folder)
{
    struct listing *listing = listing_of(folder);
    return listing->next < listing->count ? &listing->entries[listing->next++] : nullptr;
}

int stand_in_closedir(DIR *folder)
{
    struct listing *listing = listing_of(folder);
    free(listing->entries);
    *listing = {};
    return real_closedir(folder);
}
