/* The bundle's side of the string buffers of bundle.h: recognising one handed to
 * bundle_add_str, taking it over, and giving it back when its entry goes. */
#ifndef VELNA_BUNDLE_STR_BUFFER_INTERNAL_H
#define VELNA_BUNDLE_STR_BUFFER_INTERNAL_H

#include <stdbool.h>
#include <stddef.h>

/* True when str is the text of a string buffer that its caller still owns. */
bool velna_str_buffer_outstanding(const char *str);
/* Takes an outstanding buffer over for a bundle entry and returns its string length
 * (the bytes before the first zero). The entry frees it with velna_str_buffer_release. */
size_t velna_str_buffer_adopt(char *text);
/* Frees a buffer taken over by an entry: it becomes the process's spare or is unmapped. */
void velna_str_buffer_release(char *text);

#endif
