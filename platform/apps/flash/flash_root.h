// The module root, 1.3.6.1.4.1.<enterprise>.1.1, as an initialiser list of arcs.
#ifndef FLASH_ROOT_H
#define FLASH_ROOT_H

#define ORVEX_FLASH_ROOT 1, 3, 6, 1, 4, 1, ORVEX_ENTERPRISE_NUMBER, 1, 1

#endif
