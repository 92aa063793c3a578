#include <stdio.h>

#include <kavrel_direct.h>

int main(void) {
    const uint8_t digits[] = "123456789";
    if (kavrel_direct_crc32(digits, 9) != 0xCBF43926u || kavrel_direct_is_open() != 0) return 1;
    puts("consumer ok");
    return 0;
}
