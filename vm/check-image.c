/*
 * check-image.c - the host's check of a backup image made in the guest
 * (vm/guest/backup.c): every file of the writers holds the contents of
 * the frozen instant, and no other file is there.
 *
 *   check-image DIR < EXPECTED
 *
 * DIR is the image's /w directory as `debugfs -R 'rdump /w DIR'` wrote it
 * (DIR/w/...).  EXPECTED holds the guest's lines
 *
 *   file sdaP w/NAME id ID chunks C versions LO HI
 *
 * (the "BKP " prefix removed): the file is C chunks of 1 KiB, and chunk c
 * must be exactly chunk c of file ID at a version between LO and HI
 * (vm/guest/content.h).  Prints one line per fault and a summary; exit
 * status 0 when the image holds exactly the expected files.
 */
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "guest/content.h"

#define MAX_FILES 256

int main(int argc, char **argv)
{
	static char names[MAX_FILES][64];
	unsigned char buf[CNT_CHUNK];
	char line[256], part[16], name[64], path[512];
	unsigned id, chunks, lo, hi, c;
	int nfiles = 0, faults = 0, i, found;
	long total_chunks = 0;
	struct dirent *e;
	struct stat st;
	DIR *dir;
	FILE *f;

	if (argc != 2) {
		fprintf(stderr, "usage: check-image DIR < EXPECTED\n");
		return 2;
	}
	while (fgets(line, sizeof(line), stdin)) {
		if (sscanf(line, "file %15s %63s id %u chunks %u versions %u %u",
			   part, name, &id, &chunks, &lo, &hi) != 6) {
			fprintf(stderr, "check-image: bad line: %s", line);
			return 2;
		}
		if (nfiles == MAX_FILES || strncmp(name, "w/", 2) != 0) {
			fprintf(stderr, "check-image: bad file %s\n", name);
			return 2;
		}
		snprintf(names[nfiles++], sizeof(names[0]), "%s", name + 2);
		snprintf(path, sizeof(path), "%s/%s", argv[1], name);
		f = fopen(path, "rb");
		if (f == NULL) {
			printf("%s: %s is missing\n", part, name);
			faults++;
			continue;
		}
		if (fstat(fileno(f), &st) != 0 ||
		    st.st_size != (off_t)chunks * CNT_CHUNK) {
			printf("%s: %s has %ld bytes, expected %u\n", part,
			       name, (long)st.st_size, chunks * CNT_CHUNK);
			faults++;
		}
		for (c = 0; c < chunks; c++) {
			long v;

			if (fread(buf, 1, CNT_CHUNK, f) != CNT_CHUNK)
				break;
			total_chunks++;
			v = cnt_version(buf, id, c);
			if (v < 0)
				printf("%s: %s chunk %u is no version of it: "
				       "%.47s\n", part, name, c, buf);
			else if (v < (long)lo || v > (long)hi)
				printf("%s: %s chunk %u holds version %ld, "
				       "expected %u..%u\n", part, name, c, v,
				       lo, hi);
			if (v < (long)lo || v > (long)hi)
				faults++;
		}
		fclose(f);
	}
	if (nfiles == 0) {
		fprintf(stderr, "check-image: nothing expected\n");
		return 2;
	}
	snprintf(path, sizeof(path), "%s/w", argv[1]);
	dir = opendir(path);
	if (dir == NULL) {
		printf("%s: no directory w\n", part);
		return 1;
	}
	while ((e = readdir(dir)) != NULL) {
		if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
			continue;
		for (found = 0, i = 0; i < nfiles && !found; i++)
			found = strcmp(names[i], e->d_name) == 0;
		if (!found) {
			printf("%s: w/%s should not exist at the snapshot\n",
			       part, e->d_name);
			faults++;
		}
	}
	closedir(dir);
	printf("%s: %d files, %ld chunks checked, %d faults\n", part, nfiles,
	       total_chunks, faults);
	return faults ? 1 : 0;
}
