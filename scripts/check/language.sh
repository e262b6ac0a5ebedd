#!/usr/bin/env bash
# Rejects the expressions of banned-words.txt in the texts of this project, code comments and messages included.
# usage: language.sh [FILE_OR_DIRECTORY...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

# To check another directory, add its name here.
places=(README.md CHANGELOG.md CONTRIBUTING.md CMakeLists.txt CMakePresets.json run .ci docs tools examples scripts
    bench cmake util tests fuzz)
[ $# -eq 0 ] || places=("$@")

mapfile -t files < <(find "${places[@]}" -type f ! -name banned-words.txt | sort)
perl - "${files[@]}" <<'PERL'
use strict;
use warnings;

my (@banned, $hits);
open my $list, '<', 'scripts/check/banned-words.txt' or die "language: banned-words.txt: $!\n";
while (<$list>) {
    chomp;
    next if /^#|^\s*$/;
    my ($words, @allowed) = split / @ /;
    # Between two words: spaces, or the end of a line and the beginning of the next comment line.
    (my $pattern = $words) =~ s/ +/(?:[^\\S\\n]+|[^\\S\\n]*\\n\\s*(?:\\\/\\\/|[#*>])*\\s*)/g;
    push @banned, { words => $words, pattern => qr/\b(?:$pattern)\b/i,
                    allowed => [map { [split /:/, $_, 2] } @allowed] };
}
die "language: no banned words\n" unless @banned;
for my $file (@ARGV) {
    next unless -T $file;
    open my $in, '<', $file or die "language: $file: $!\n";
    my $text = do { local $/; <$in> };
    $text //= '';
    for my $entry (@banned) {
        while ($text =~ /$entry->{pattern}/g) {
            my $number = 1 + (substr($text, 0, $-[0]) =~ tr/\n//);
            my $line = (split /\n/, $text)[$number - 1];
            next if grep { $file eq $_->[0] && $line =~ /$_->[1]/ } @{$entry->{allowed}};
            $line =~ s/^\s+//;
            print STDERR "$file:$number: '$entry->{words}': $line\n";
            $hits++;
        }
    }
}
if ($hits) {
    print STDERR "language: $hits banned expressions, see scripts/check/banned-words.txt\n";
    exit 1;
}
print 'language: ' . @ARGV . " files without a banned expression\n";
PERL
