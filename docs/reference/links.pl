#!/usr/bin/env perl
# Turns a guide's links into links to pages of the reference, and those to examples into their names.
use strict;
use warnings;

open my $file, '<', $ARGV[0] or die "$ARGV[0]: $!";
my $text = join '', <$file>;
$text =~ s{\]\((?:\.\./)*include/veskrt/([\w.]+)\)}{](\@ref $1)}g;
$text =~ s{\[([^\]]*)\]\(\.\./examples/[^)]*\)}{`$1`}g;
$text =~ s{\]\((?:\.\./)*([\w-]+)\.md\)}{](\@ref $1)}g;
# Doxygen takes an apostrophe for the end of a code span.
$text =~ s{`([^`\n]+)`}{my $code = $1; $code =~ /'/ && $code !~ /</ ? "<code>$code</code>" : "`$code`"}ge;
my ($page) = $ARGV[0] =~ m{([\w-]+)\.md$};
$text =~ s{^(# .*)$}{$1 {#$page}}m;
print $text;
