#!/usr/bin/env perl
# What documents show is what there is: each code block below "<!-- from: FILE -->" stands in FILE as it is,
# and every link leads to a file. ROOT is the source tree, or the directory of the installed documents.
#   checkdocs.pl ROOT
use strict;
use warnings;

chdir $ARGV[0] or die "$ARGV[0]: $!\n";
my ($blocks, $bad) = (0, 0);

sub contents
{
    my ($name) = @_;
    open my $file, '<', $name or return undef;
    local $/;
    return <$file>;
}

for my $document (glob('*.md */*.md */*/*.md')) {
    next if $document =~ m{^build/};
    my $text = contents($document);
    while ($text =~ /^<!-- from: (\S+) -->\n```\w*\n(.*?)^```$/msg) {
        my ($name, $block) = ($1, $2);
        ++$blocks;
        next if index(contents($name) // '', $block) >= 0;
        print "$document: a block differs from $name; it begins with\n" . ($block =~ /\A(.*\n)/)[0];
        $bad = 1;
    }
    $text =~ s/^```.*?^```$//msg;
    my ($folder) = $document =~ m{^(.*/)};
    while ($text =~ /\]\(([^)#:]+)(#[^)]*)?\)/g) {
        next if -e (($folder // '') . $1);
        print "$document: there is no $1\n";
        $bad = 1;
    }
}
die "No block was found.\n" unless $blocks;
exit $bad;
