/* A key travels as Base64 and is shown in hexadecimal digits. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <lh_base64.h>

static void there_and_back(const char *text)
{
    size_t size = 0;
    char *encoded =
        lh_base64_encode((const unsigned char *)text, strlen(text));
    if (encoded == NULL)
        return;
    /* no terminator: print by size */
    unsigned char *decoded = lh_base64_decode(encoded, &size);
    if (decoded != NULL)
        printf("%s is %.*s\n", encoded, (int)size,
               (const char *)decoded);
    free(decoded);
    free(encoded);
}

static void as_digits(const char *base64)
{
    char *hex = lh_base64_to_hex(base64, strlen(base64));
    char *again =
        hex != NULL ? lh_hex_to_base64(hex, strlen(hex)) : NULL;
    if (again != NULL)
        printf("%s is %s is %s\n", base64, hex, again);
    free(again);
    free(hex);
}

int main(void)
{
    there_and_back("secret");
    as_digits("c2VjcmV0");
    return 0;
}

/* Prints:
 * c2VjcmV0 is secret
 * c2VjcmV0 is 736563726574 is c2VjcmV0
 */
