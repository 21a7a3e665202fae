/* utsrelease.h - DUPLICATED from a 2.6.27 build. */
#define UTS_RELEASE "2.6.27"
