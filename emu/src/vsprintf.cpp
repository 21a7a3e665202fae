// The kernel's formatted output (lib/vsprintf.c of 2.6.27) and string
// helpers (lib/string.c), so that driver messages read exactly as on the
// real kernel: %p is zero-padded hex without "0x" (8 digits for a value
// that fits 32 bits, as on the 32-bit kernel), a NULL %s prints "<NULL>",
// unknown conversions are copied through, %n is honoured.
#include <cctype>

#include "core.hpp"

namespace {

enum {
	ZEROPAD = 1,   // pad with zero
	SIGN = 2,      // unsigned/signed long
	PLUS = 4,      // show plus
	SPACE = 8,     // space if plus
	LEFT = 16,     // left justified
	SMALL = 32,    // must be 32 == 0x20
	SPECIAL = 64,  // 0x
};

int skip_atoi(const char **s)
{
	int i = 0;

	while (**s >= '0' && **s <= '9')
		i = i * 10 + *((*s)++) - '0';
	return i;
}

void put(char *&buf, char *end, char c)
{
	if (buf < end)
		*buf = c;
	++buf;
}

char *number(char *buf, char *end, unsigned long long num, int base, int size,
	     int precision, int type)
{
	static const char digits[17] = "0123456789ABCDEF";
	char tmp[66];
	char sign;
	char locase;
	int need_pfx = ((type & SPECIAL) && base != 10);
	int i;

	locase = static_cast<char>(type & SMALL);
	if (type & LEFT)
		type &= ~ZEROPAD;
	sign = 0;
	if (type & SIGN) {
		if (static_cast<long long>(num) < 0) {
			sign = '-';
			num = static_cast<unsigned long long>(
				-static_cast<long long>(num));
			size--;
		} else if (type & PLUS) {
			sign = '+';
			size--;
		} else if (type & SPACE) {
			sign = ' ';
			size--;
		}
	}
	if (need_pfx) {
		size--;
		if (base == 16)
			size--;
	}
	i = 0;
	if (num == 0) {
		tmp[i++] = '0';
	} else if (base != 10) {
		int mask = base - 1;
		int shift = base == 16 ? 4 : 3;
		do {
			tmp[i++] = static_cast<char>(
				digits[static_cast<unsigned char>(num) & mask] |
				locase);
			num >>= shift;
		} while (num);
	} else {
		do {
			tmp[i++] = static_cast<char>('0' + num % 10);
			num /= 10;
		} while (num);
	}
	if (i > precision)
		precision = i;
	size -= precision;
	if (!(type & (ZEROPAD + LEFT)))
		while (--size >= 0)
			put(buf, end, ' ');
	if (sign)
		put(buf, end, sign);
	if (need_pfx) {
		put(buf, end, '0');
		if (base == 16)
			put(buf, end, static_cast<char>('X' | locase));
	}
	if (!(type & LEFT)) {
		char c = (type & ZEROPAD) ? '0' : ' ';
		while (--size >= 0)
			put(buf, end, c);
	}
	while (i <= --precision)
		put(buf, end, '0');
	while (--i >= 0)
		put(buf, end, tmp[i]);
	while (--size >= 0)
		put(buf, end, ' ');
	return buf;
}

char *string(char *buf, char *end, const char *s, int field_width,
	     int precision, int flags)
{
	if (reinterpret_cast<unsigned long>(s) < PAGE_SIZE)
		s = "<NULL>";
	int len = static_cast<int>(
		strnlen(s, precision < 0 ? ~0UL : static_cast<size_t>(precision)));
	if (!(flags & LEFT))
		while (len < field_width--)
			put(buf, end, ' ');
	for (int i = 0; i < len; ++i)
		put(buf, end, *s++);
	while (len < field_width--)
		put(buf, end, ' ');
	return buf;
}

char *pointer(char *buf, char *end, const void *ptr, int field_width,
	      int precision, int flags)
{
	auto value = reinterpret_cast<unsigned long>(ptr);
	flags |= SMALL;
	if (field_width == -1) {
		// The 32-bit kernel pads to 2 * sizeof(void *) = 8 digits.
		field_width = value > 0xffffffffUL ? 16 : 8;
		flags |= ZEROPAD;
	}
	return number(buf, end, value, 16, field_width, precision, flags);
}

}  // namespace

extern "C" int emu_vsnprintf(char *buf, size_t size, const char *fmt,
			     va_list args)
{
	unsigned long long num;
	int base;
	char *str, *end;
	int flags, field_width, precision, qualifier;

	if (static_cast<int>(size) < 0)
		return 0;
	str = buf;
	end = buf + size;

	for (; *fmt; ++fmt) {
		if (*fmt != '%') {
			put(str, end, *fmt);
			continue;
		}
		flags = 0;
	repeat:
		++fmt;
		switch (*fmt) {
		case '-': flags |= LEFT; goto repeat;
		case '+': flags |= PLUS; goto repeat;
		case ' ': flags |= SPACE; goto repeat;
		case '#': flags |= SPECIAL; goto repeat;
		case '0': flags |= ZEROPAD; goto repeat;
		}
		field_width = -1;
		if (*fmt >= '0' && *fmt <= '9') {
			field_width = skip_atoi(&fmt);
		} else if (*fmt == '*') {
			++fmt;
			field_width = va_arg(args, int);
			if (field_width < 0) {
				field_width = -field_width;
				flags |= LEFT;
			}
		}
		precision = -1;
		if (*fmt == '.') {
			++fmt;
			if (*fmt >= '0' && *fmt <= '9') {
				precision = skip_atoi(&fmt);
			} else if (*fmt == '*') {
				++fmt;
				precision = va_arg(args, int);
			}
			if (precision < 0)
				precision = 0;
		}
		qualifier = -1;
		if (*fmt == 'h' || *fmt == 'l' || *fmt == 'L' || *fmt == 'Z' ||
		    *fmt == 'z' || *fmt == 't') {
			qualifier = *fmt;
			++fmt;
			if (qualifier == 'l' && *fmt == 'l') {
				qualifier = 'L';
				++fmt;
			}
		}
		base = 10;
		switch (*fmt) {
		case 'c':
			if (!(flags & LEFT))
				while (--field_width > 0)
					put(str, end, ' ');
			put(str, end, static_cast<char>(
				    static_cast<unsigned char>(va_arg(args, int))));
			while (--field_width > 0)
				put(str, end, ' ');
			continue;
		case 's':
			str = string(str, end, va_arg(args, const char *),
				     field_width, precision, flags);
			continue;
		case 'p':
			str = pointer(str, end, va_arg(args, void *),
				      field_width, precision, flags);
			// Skip the kernel's alphanumeric pointer suffixes.
			while ((fmt[1] >= 'a' && fmt[1] <= 'z') ||
			       (fmt[1] >= 'A' && fmt[1] <= 'Z') ||
			       (fmt[1] >= '0' && fmt[1] <= '9'))
				fmt++;
			continue;
		case 'n':
			if (qualifier == 'l')
				*va_arg(args, long *) = str - buf;
			else if (qualifier == 'Z' || qualifier == 'z')
				*va_arg(args, size_t *) =
					static_cast<size_t>(str - buf);
			else
				*va_arg(args, int *) =
					static_cast<int>(str - buf);
			continue;
		case '%':
			put(str, end, '%');
			continue;
		case 'o':
			base = 8;
			break;
		case 'x':
			flags |= SMALL;
			[[fallthrough]];
		case 'X':
			base = 16;
			break;
		case 'd':
		case 'i':
			flags |= SIGN;
			[[fallthrough]];
		case 'u':
			break;
		default:
			put(str, end, '%');
			if (*fmt)
				put(str, end, *fmt);
			else
				--fmt;
			continue;
		}
		if (qualifier == 'L') {
			num = static_cast<unsigned long long>(
				va_arg(args, long long));
		} else if (qualifier == 'l') {
			num = va_arg(args, unsigned long);
			if (flags & SIGN)
				num = static_cast<unsigned long long>(
					static_cast<long long>(
						static_cast<long>(num)));
		} else if (qualifier == 'Z' || qualifier == 'z') {
			num = va_arg(args, size_t);
		} else if (qualifier == 't') {
			num = static_cast<unsigned long long>(
				va_arg(args, ptrdiff_t));
		} else if (qualifier == 'h') {
			num = static_cast<unsigned short>(va_arg(args, int));
			if (flags & SIGN)
				num = static_cast<unsigned long long>(
					static_cast<short>(num));
		} else {
			num = va_arg(args, unsigned int);
			if (flags & SIGN)
				num = static_cast<unsigned long long>(
					static_cast<long long>(
						static_cast<int>(num)));
		}
		str = number(str, end, num, base, field_width, precision,
			     flags);
	}
	if (size > 0) {
		if (str < end)
			*str = '\0';
		else
			end[-1] = '\0';
	}
	return static_cast<int>(str - buf);
}

extern "C" int emu_vscnprintf(char *buf, size_t size, const char *fmt,
			      va_list args)
{
	int i = emu_vsnprintf(buf, size, fmt, args);
	if (size == 0)
		return 0;
	return (static_cast<size_t>(i) >= size) ? static_cast<int>(size - 1) : i;
}

extern "C" int emu_snprintf(char *buf, size_t size, const char *fmt, ...)
{
	va_list args;
	va_start(args, fmt);
	int i = emu_vsnprintf(buf, size, fmt, args);
	va_end(args);
	return i;
}

extern "C" int emu_scnprintf(char *buf, size_t size, const char *fmt, ...)
{
	va_list args;
	va_start(args, fmt);
	int i = emu_vscnprintf(buf, size, fmt, args);
	va_end(args);
	return i;
}

extern "C" int emu_vsprintf(char *buf, const char *fmt, va_list args)
{
	return emu_vsnprintf(buf, INT_MAX, fmt, args);
}

extern "C" int emu_sprintf(char *buf, const char *fmt, ...)
{
	va_list args;
	va_start(args, fmt);
	int i = emu_vsnprintf(buf, INT_MAX, fmt, args);
	va_end(args);
	return i;
}

extern "C" char *emu_kasprintf(gfp_t gfp, const char *file, int line,
			       const char *fmt, ...)
{
	va_list args, aq;
	va_start(args, fmt);
	va_copy(aq, args);
	int len = emu_vsnprintf(nullptr, 0, fmt, aq);
	va_end(aq);
	auto *p = static_cast<char *>(
		emu_kmalloc(static_cast<size_t>(len) + 1, gfp, file, line));
	if (p)
		emu_vsnprintf(p, static_cast<size_t>(len) + 1, fmt, args);
	va_end(args);
	return p;
}

// ---- number parsing (lib/vsprintf.c) -------------------------------------------

extern "C" unsigned long long simple_strtoull(const char *cp, char **endp,
					      unsigned int base)
{
	unsigned long long result = 0, value;

	if (!base) {
		base = 10;
		if (*cp == '0') {
			base = 8;
			cp++;
			if ((*cp == 'x' || *cp == 'X') &&
			    std::isxdigit(static_cast<unsigned char>(cp[1]))) {
				cp++;
				base = 16;
			}
		}
	} else if (base == 16) {
		if (cp[0] == '0' && (cp[1] == 'x' || cp[1] == 'X'))
			cp += 2;
	}
	while (std::isxdigit(static_cast<unsigned char>(*cp)) &&
	       (value = std::isdigit(static_cast<unsigned char>(*cp))
			? static_cast<unsigned long long>(*cp - '0')
			: static_cast<unsigned long long>(
				  std::toupper(static_cast<unsigned char>(*cp)) -
				  'A' + 10)) < base) {
		result = result * base + value;
		cp++;
	}
	if (endp)
		*endp = const_cast<char *>(cp);
	return result;
}

extern "C" unsigned long simple_strtoul(const char *cp, char **endp,
					unsigned int base)
{
	return static_cast<unsigned long>(simple_strtoull(cp, endp, base));
}

extern "C" long simple_strtol(const char *cp, char **endp, unsigned int base)
{
	if (*cp == '-')
		return -static_cast<long>(simple_strtoul(cp + 1, endp, base));
	return static_cast<long>(simple_strtoul(cp, endp, base));
}

extern "C" long long simple_strtoll(const char *cp, char **endp,
				    unsigned int base)
{
	if (*cp == '-')
		return -static_cast<long long>(simple_strtoull(cp + 1, endp,
							       base));
	return static_cast<long long>(simple_strtoull(cp, endp, base));
}

// ---- lib/string.c --------------------------------------------------------------------

extern "C" size_t emu_strlcpy(char *dest, const char *src, size_t size)
{
	size_t ret = std::strlen(src);

	if (size) {
		size_t len = (ret >= size) ? size - 1 : ret;
		std::memcpy(dest, src, len);
		dest[len] = '\0';
	}
	return ret;
}

extern "C" size_t emu_strlcat(char *dest, const char *src, size_t count)
{
	size_t dsize = std::strlen(dest);
	size_t len = std::strlen(src);
	size_t res = dsize + len;

	if (dsize >= count)
		emu_bug(__FILE__, __LINE__);
	dest += dsize;
	count -= dsize;
	if (len >= count)
		len = count - 1;
	std::memcpy(dest, src, len);
	dest[len] = 0;
	return res;
}

extern "C" int emu_strnicmp(const char *s1, const char *s2, size_t len)
{
	unsigned char c1 = 0, c2 = 0;

	if (len) {
		do {
			c1 = static_cast<unsigned char>(*s1);
			c2 = static_cast<unsigned char>(*s2);
			s1++;
			s2++;
			if (!c1)
				break;
			if (!c2)
				break;
			if (c1 == c2)
				continue;
			c1 = static_cast<unsigned char>(std::tolower(c1));
			c2 = static_cast<unsigned char>(std::tolower(c2));
			if (c1 != c2)
				break;
		} while (--len);
	}
	return static_cast<int>(c1) - static_cast<int>(c2);
}

// ---- bitmap search (lib/find_next_bit.c) ----------------------------------------------

extern "C" unsigned long find_next_bit(const unsigned long *addr,
				       unsigned long size,
				       unsigned long offset)
{
	for (; offset < size; offset++)
		if (test_bit(static_cast<int>(offset), addr))
			return offset;
	return size;
}

extern "C" unsigned long find_next_zero_bit(const unsigned long *addr,
					    unsigned long size,
					    unsigned long offset)
{
	for (; offset < size; offset++)
		if (!test_bit(static_cast<int>(offset), addr))
			return offset;
	return size;
}
