#!/usr/bin/env perl
# Write an initramfs: a cpio archive in the "newc" format that the kernel
# unpacks into its root file system, from a list of entries on stdin:
#
#	dir  PATH MODE
#	nod  PATH MODE c|b MAJOR MINOR
#	file PATH MODE SOURCE
#
# (MODE in octal).  Entries are owned by root and dated 0, so the archive
# depends only on its contents; device nodes need no privileges to make.
#
#	vm/mkinitramfs.pl OUTPUT < list
use strict;
use warnings;

my $out = shift or die "usage: mkinitramfs.pl OUTPUT < list\n";
open(my $fh, '>:raw', $out) or die "$out: $!\n";
my $ino = 1;
my $written = 0;

sub pad4 {
	my $n = (4 - $written % 4) % 4;
	print $fh "\0" x $n;
	$written += $n;
}

sub entry {
	my ($name, $mode, $rdevmajor, $rdevminor, $data) = @_;
	my $nlink = ($mode & 0170000) == 0040000 ? 2 : 1;
	my $hdr = sprintf('070701' . ('%08X' x 13),
		$ino++, $mode, 0, 0, $nlink, 0, length($data),
		0, 0, $rdevmajor, $rdevminor, length($name) + 1, 0);
	print $fh $hdr, $name, "\0";
	$written += length($hdr) + length($name) + 1;
	pad4();
	print $fh $data;
	$written += length($data);
	pad4();
}

while (my $line = <STDIN>) {
	chomp $line;
	next if $line =~ /^\s*(#|$)/;
	my ($type, $path, $mode, @rest) = split ' ', $line;
	$path =~ s{^/}{};
	$mode = oct($mode);
	if ($type eq 'dir') {
		entry($path, 0040000 | $mode, 0, 0, '');
	} elsif ($type eq 'nod') {
		my ($kind, $major, $minor) = @rest;
		my $fmt = $kind eq 'c' ? 0020000 : 0060000;
		entry($path, $fmt | $mode, $major, $minor, '');
	} elsif ($type eq 'file') {
		my ($src) = @rest;
		open(my $in, '<:raw', $src) or die "$src: $!\n";
		local $/;
		my $data = <$in>;
		close($in);
		entry($path, 0100000 | $mode, 0, 0, defined $data ? $data : '');
	} else {
		die "mkinitramfs.pl: unknown entry '$line'\n";
	}
}
entry('TRAILER!!!', 0, 0, 0, '');
close($fh) or die "$out: $!\n";
