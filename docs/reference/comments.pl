#!/usr/bin/env perl
# Hands a header's plain comments to Doxygen: the first as the file's, "---- Title ----" as a group of what follows, a comment
# in front of declarations as that of each of them up to the next blank line, one behind code as that of what stands before.
use strict;
use warnings;

my @lines = <>;
my $seen_file = 0;
my $group_open = 0;

sub is_comment_start { return $_[0] =~ m{^\s*(?:/\*|//)} }

# The text of the comment that begins at the front of @lines, which it takes, without its marks.
sub take_comment {
  my @text;
  if ($lines[0] =~ m{^\s*//}) {
    push @text, shift @lines while @lines && $lines[0] =~ m{^\s*//};
    s{^\s*//(/<)? ?}{} for @text;
    return @text;
  }
  while (@lines) {
    my $line = shift @lines;
    my $last = $line =~ s{\s*\*/\s*$}{\n};
    $line =~ s{^\s*/\* ?}{} or $line =~ s{^\s*\* ?}{};
    push @text, $line;
    last if $last;
  }
  pop @text while @text && $text[-1] !~ /\S/;
  return @text;
}

sub put_comment {
  my ($opening, @text) = @_;
  print "/** $opening", (map { " * $_" } @text), " */\n";
}

sub close_group {
  print "/** \@} */\n" if $group_open;
  $group_open = 0;
}

# Takes one declaration, up to where its braces are closed and it ends. A comment behind code is that of what stands before it.
sub put_declaration {
  my $depth = 0;
  while (@lines) {
    if ($depth > 0 && is_comment_start($lines[0])) {
      put_documented(take_comment());
      next;
    }
    my $line = shift @lines;
    $line =~ s{(\S.*?)/\*(?!\*) ?}{$1/**< } if $line !~ /\\$/;
    print $line;
    (my $code = $line) =~ s{/\*.*}{};
    $code =~ s{"[^"]*"|'.'}{}g;
    $depth += ($code =~ tr/{(//) - ($code =~ tr/})//);
    while ($line =~ m{/\*} && $line !~ m{\*/} && @lines) {
      $line = shift @lines;
      print $line;
    }
    last if $line =~ /^#/ && $line !~ /\\$/;
    last if $depth <= 0 && $code =~ /[;,}]\s*$/;
    last if $line !~ /\S/;
  }
}

# A comment and the declarations that it is about.
sub put_documented {
  my @text = @_;
  if (!@lines || $lines[0] !~ /\S/) {
    print "\n" x @text;
    return;
  }
  my ($indent) = $lines[0] =~ /^(\s*)/;
  print shift @lines if $lines[0] =~ /^#if/;
  while (@lines && $lines[0] =~ /^$indent[^\s}]/ && !is_comment_start($lines[0]) && $lines[0] !~ /^#(?!define)/) {
    # What is said of one declaration comes before what is said of all.
    my @own = $lines[0] =~ s{(\S)\s*/\* (.*?)\.? \*/$}{$1} ? ("$2.\n", "\n") : ();
    put_comment("\n", @own, @text);
    put_declaration();
  }
}

while (@lines) {
  if (is_comment_start($lines[0])) {
    my @text = take_comment();
    if (!$seen_file) {
      $seen_file = 1;
      put_comment("\@file\n", @text);
    } elsif ($text[0] =~ /^---- /) {
      close_group();
      my $text = join '', @text;
      $text =~ s/^---- //;
      $text =~ s/ ----(?=\n)//;
      my ($title, $rest) = $text =~ /^([^:.\n]*)[:.]?\s*(.*)/s;
      put_comment("\@name $title\n", "\n", map { "$_\n" } split /\n/, ucfirst $rest);
      print "/** \@{ */\n";
      $group_open = 1;
    } else {
      put_documented(@text);
    }
  } elsif ($lines[0] =~ /^(?:VESK_END_DECLS|#endif)/) {
    close_group();
    print shift @lines;
  } elsif ($lines[0] =~ /\S/ && $lines[0] !~ /^#(?!define)/) {
    put_declaration();
  } else {
    print shift @lines;
  }
}
