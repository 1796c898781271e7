#!/usr/bin/perl
# Doxygen's input filter for the exported headers, which are commented with plain "//" lines.
# It hands Doxygen the same header with those comments made documentation, so the headers keep
# one comment style and the reference is built from the very comments a reader of the header
# sees. Line numbers stay as they are.
#   - The comment block at the top of a header documents the file (@file).
#   - A block of "//" lines directly above a declaration documents it ("///"), and with it the
#     declarations that follow up to a blank line (a member group); a block followed by a blank
#     line (a section heading, a note) stays a plain comment. A destructor in a run keeps no
#     text: what a run says is about the declarations it heads; and a block right above a
#     destructor documents the destructor alone.
#   - "// text" after a member or an enumerator on its line documents that member ("///<").
#   - Comment lines indented by two blanks or more (examples, tables) are kept as written
#     (@verbatim); in other comment text the characters Doxygen would read as commands or HTML
#     are escaped.
#   - Nothing inside function bodies and initialisers changes.
use strict;
use warnings;

my @lines = <>;
chomp @lines;

sub is_comment { return $_[0] =~ m{^\s*//(?!/)}; }
sub comment_text { my ($line) = @_; $line =~ s{^\s*//\s?}{}; return $line; }

sub escape {
  my ($text) = @_;
  $text =~ s/([\\@<>&#%\$])/\\$1/g;
  return $text;
}

# The code of a line without its comment and without the contents of string and character
# literals, so that braces and "//" inside them count for nothing.
sub code_part {
  my ($line) = @_;
  my $code = '';
  my $i = 0;
  my $n = length $line;
  while ($i < $n) {
    my $c = substr($line, $i, 1);
    if ($c eq '"' || $c eq "'") {
      my $j = $i + 1;
      while ($j < $n && substr($line, $j, 1) ne $c) { $j += substr($line, $j, 1) eq '\\' ? 2 : 1; }
      $code .= $c . $c;
      $i = $j + 1;
      next;
    }
    last if substr($line, $i, 2) eq '//';
    $code .= $c;
    $i++;
  }
  return wantarray ? ($code, $i) : $code;
}

# Which lines are at namespace or class scope (not inside a body or an initialiser).
my @declaration_scope;
my @statement_start;   # a declaration begins on the line (nothing of one is pending)
my @scopes;      # 1: namespace, class, enum or extern block; 0: body or initialiser
my $statement = '';
for my $k (0 .. $#lines) {
  $declaration_scope[$k] = !grep { !$_ } @scopes;
  $statement_start[$k] = $statement !~ /\S/;
  my $code = code_part($lines[$k]);
  next if $code =~ /^\s*#/;
  for my $c (split //, $code) {
    if ($c eq '{') {
      my $scope = $statement =~ /\b(class|struct|union|enum|namespace)\b/ && $statement !~ /[(=]/
                  || $statement =~ /\bnamespace\b/ || $statement =~ /extern\s*""\s*$/;
      push @scopes, $scope ? 1 : 0;
      $statement = '';
    } elsif ($c eq '}') {
      pop @scopes;
      $statement = '';
    } elsif ($c eq ';' || ($c eq ':' && $statement =~ /^\s*(public|protected|private)\s*$/)) {
      $statement = '';    # a declaration ends, or an access label (public:)
    } else {
      $statement .= $c;
    }
  }
}

# Converts the comment block of lines $first..$last; $file_block adds @file.
sub convert_block {
  my ($first, $last, $file_block) = @_;
  my $verbatim = 0;
  for my $k ($first .. $last) {
    my ($indent) = $lines[$k] =~ /^(\s*)/;
    my $raw = $lines[$k];
    $raw =~ s{^\s*//}{};
    my $example = $raw =~ /^\s{3,}\S/ || ($verbatim && $raw =~ /^\s*$/ && $k < $last && $lines[$k + 1] =~ m{^\s*//\s{3,}\S});
    my $text = comment_text($lines[$k]);
    my $out = '';
    if ($example && !$verbatim) { $out .= '@verbatim '; $verbatim = 1; }
    if (!$example && $verbatim) { $out .= '@endverbatim '; $verbatim = 0; }
    $out .= $example ? $raw : escape($text);
    $out .= ' @endverbatim' if $verbatim && $k == $last;
    $out .= ' @file' if $file_block && $k == $last;
    $lines[$k] = "$indent///$out";
  }
}

# A comment block documents the run of declarations below it, up to a blank line, the next
# comment block, an access specifier or the end of the scope: each further declaration of the
# run gets the block's text too, written before it on its own line.
my @depth_at;    # the scope depth at the start of each line
{
  my $depth = 0;
  for my $k (0 .. $#lines) {
    $depth_at[$k] = $depth;
    my $code = code_part($lines[$k]);
    next if $code =~ /^\s*#/;
    $depth += () = $code =~ /\{/g;
    $depth -= () = $code =~ /\}/g;
  }
}

my $k = 0;
my $seen_code = 0;
my $group_depth = -1;    # the depth of the run being documented; -1 when none
my $group_text = '';
my $group_first = 1;     # the next declaration is the one right below the block
while ($k <= $#lines) {
  my $line = $lines[$k];
  if ($group_depth >= 0 && ($depth_at[$k] < $group_depth
      || ($declaration_scope[$k] && $depth_at[$k] == $group_depth
          && ($line =~ /^\s*$/ || is_comment($line) || $line =~ /^\s*(public|protected|private)\s*:/
              || code_part($line) =~ /^\s*\}/)))) {
    $group_depth = -1;
  }
  if ($group_depth >= 0 && $declaration_scope[$k] && $depth_at[$k] == $group_depth && $statement_start[$k]
      && $line =~ /\S/ && $line !~ /^\s*#/) {
    # A destructor only takes the text of a block right above it: a run's text describes the
    # constructors or functions it heads, never what destruction does.
    $lines[$k] =~ s{^(\s*)}{$1/** $group_text */ } unless $group_first || $line =~ /^\s*(virtual\s+)?~/;
    # A block right above a destructor is about the destructor alone.
    $group_depth = -1 if $group_first && $line =~ /^\s*(virtual\s+)?~/;
    $group_first = 0;
  }
  if (is_comment($line) && $declaration_scope[$k]) {
    my $first = $k;
    $k++ while $k + 1 <= $#lines && is_comment($lines[$k + 1]);
    my $last = $k;
    my $next = $last + 1 <= $#lines ? $lines[$last + 1] : '';
    if (!$seen_code && $first == 0) {
      convert_block($first, $last, 1);
    } elsif ($next =~ /\S/ && $next !~ /^\s*(#\s*(if|ifdef|ifndef|else|elif|endif|include|pragma)\b|\}|public:|protected:|private:)/) {
      $group_text = join ' ', map { comment_text($_) } @lines[$first .. $last];
      $group_text = escape($group_text);
      $group_text =~ s{\*/}{* /}g;
      convert_block($first, $last, 0);
      $group_depth = $depth_at[$first];
      $group_first = 1;
    }
    $k++;
    next;
  }
  if ($line =~ /\S/) {
    $seen_code = 1;
    if ($declaration_scope[$k] && $line !~ /^\s*#/) {
      my ($code, $at) = code_part($line);
      # A member or enumerator ends in ";" or ","; the last enumerator may have neither.
      if ($at < length($line) && ($code =~ /[;,]\s*$/ || $code =~ /^\s*\w+(\s*=\s*[^;{}()]+?)?\s*$/)) {
        my $comment = substr($line, $at + 2);
        $comment =~ s{^\s}{};
        $lines[$k] = substr($line, 0, $at) . '///< ' . escape($comment) unless $comment =~ m{^/};
      }
    }
  }
  $k++;
}

print "$_\n" for @lines;
