#!/bin/sh
# Makes the pictures of the jobs in this folder, with public tools and the DejaVu fonts:
#   apt-get install imagemagick zint fonts-dejavu-core fonts-dejavu-extra
# Everything is drawn for 600 dots an inch. Sender, recipient and carrier are invented.
set -eu
cd "$(dirname "$0")"

convert=/usr/bin/convert-im6.q16
fonts=/usr/share/fonts/truetype/dejavu
bold=$fonts/DejaVuSansCondensed-Bold.ttf
plain=$fonts/DejaVuSansCondensed.ttf
mono=$fonts/DejaVuSansMono-Bold.ttf
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# text FILE FONT PIXELS TEXT: lines of text, cut to their ink.
text()
{
    "$convert" -background white -fill black -font "$2" -pointsize "$3" -interline-spacing "$(($3 / -12))" label:"$4" \
        -trim +repage -threshold 50% "pbm:$1"
}

# The carrier's mark: a falcon of three feathers in a ring, and the word beside it.
"$convert" -size 360x360 xc:white -fill none -stroke black -strokewidth 22 -draw 'circle 180,180 180,14' \
    -stroke none -fill black \
    -draw "path 'M 62,112 C 150,84 246,92 312,150 C 240,136 160,140 96,166 Z'" \
    -draw "path 'M 96,186 C 160,160 236,160 306,178 C 244,190 184,204 130,236 Z'" \
    -draw "path 'M 142,250 C 188,222 236,206 290,204 C 254,236 222,268 196,312 Z'" \
    -threshold 50% "$work/mark.pbm"
text "$work/word.pbm" "$bold" 168 'HALVIK'
text "$work/line.pbm" "$plain" 74 'PARCEL & FREIGHT'
"$convert" -background white \( "$work/word.pbm" -gravity south -splice 0x30 \) "$work/line.pbm" -gravity west \
    -append "$work/words.pbm"
"$convert" "$work/mark.pbm" \( "$work/words.pbm" -bordercolor white -border 44x0 \) -background white -gravity center \
    +append -trim +repage pbm:logo.pbm
"$convert" logo.pbm -filter box -resize 50% -threshold 55% pbm:smallLogo.pbm

# The printed words of the shipping label.
text service.pbm "$bold" 216 'EXPRESS'
text serviceLine.pbm "$bold" 84 'by noon, next day'
text from.pbm "$plain" 78 'Brandvold & Kvist
Instrument makers
Kvarnvägen 8, port 3
20417 ASTERHOLM'
text to.pbm "$bold" 132 'Mr Teodor Winge
Ulvåsen Orchard
Fjordgatan 112
00 420 BRENNHOLM'
text route.pbm "$bold" 400 'BR7 · 042'
text number.pbm "$mono" 108 'HLV 0042 7719 3305 8'
text captionFrom.pbm "$plain" 50 'FROM'
text captionTo.pbm "$plain" 50 'DELIVER TO'
text captionRoute.pbm "$plain" 50 'ROUTE'
text captionLabel.pbm "$plain" 50 'LABEL No.'
text title.pbm "$bold" 118 'STORES · BAY 4'
text titleLine.pbm "$plain" 66 'scan at every move'
text factNames.pbm "$plain" 78 'Shipped
Weight
Parcel
Order'
text factValues.pbm "$bold" 78 '14 May
3.40 kg
2 of 5
WO-8816'

# A strip of the ten digits, each in a cell of the same width, for serial numbers.
for digit in 0 1 2 3 4 5 6 7 8 9; do
    "$convert" -size 60x100 xc:white -fill black -font "$mono" -pointsize 92 -gravity center \
        -annotate +0+0 "$digit" -threshold 50% "$work/digit$digit.pbm"
done
"$convert" "$work"/digit?.pbm +append pbm:digits.pbm

# Code 128 of the consignment number, twelve dots a module. One row is enough: the job repeats it downward.
zint --barcode=20 --data=HLV0042771933058 --notext --scale=0.5 --filetype=PNG -o "$work/code.png"
"$convert" "$work/code.png" -crop x1+0+2 +repage -filter point -resize 1200%x100% -threshold 50% pbm:barcode.pbm

# Data Matrix of the routing data, 20 dots a module.
zint --barcode=71 --square --data='HLV|0042771933058|BR7-042|00420|2/5|3400g|EXPRESS' --scale=0.5 --filetype=PNG -o "$work/matrix.png"
"$convert" "$work/matrix.png" -filter point -resize 2000% -threshold 50% pbm:matrix.pbm

# Interleaved 2 of 5, six dots a module: a strip of the hundred pairs 00 to 99, one row high, with its start and its stop.
for pair in $(seq -w 0 99); do
    zint --barcode=3 --data="$pair" --notext --scale=0.5 --filetype=PNG -o "$work/pair.png"
    "$convert" "$work/pair.png" -crop x1+0+2 +repage -threshold 50% "$work/whole.pbm"
    "$convert" "$work/whole.pbm" -crop 18x1+4+0 +repage "$work/pair$pair.pbm"
done
"$convert" "$work"/pair[0-9][0-9].pbm +append -filter point -resize 600%x100% -threshold 50% pbm:pairs.pbm
"$convert" "$work/whole.pbm" -crop 4x1+0+0 +repage -filter point -resize 600%x100% -threshold 50% pbm:pairsStart.pbm
"$convert" "$work/whole.pbm" -gravity east -crop 5x1+0+0 +repage -filter point -resize 600%x100% -threshold 50% pbm:pairsStop.pbm

# The signs: this side up, keep dry, fragile.
"$convert" -size 300x300 xc:white -fill black -stroke none \
    -draw 'rectangle 20,268 280,286' \
    -draw 'polygon 84,14 24,104 60,104 60,240 108,240 108,104 144,104' \
    -draw 'polygon 216,14 156,104 192,104 192,240 240,240 240,104 276,104' -threshold 50% pbm:signUp.pbm
"$convert" -size 300x300 xc:white -fill black -stroke none \
    -draw "path 'M 16,160 A 134,120 0 0 1 284,160 Q 262,130 240,160 Q 218,130 195,160 Q 172,130 150,160 Q 128,130 105,160 Q 82,130 60,160 Q 38,130 16,160 Z'" \
    -draw 'rectangle 144,24 156,60' \
    -draw 'rectangle 143,150 156,250' -draw 'circle 122,250 122,284' -fill white -draw 'circle 122,250 122,270' \
    -draw 'rectangle 80,200 142,250' -fill black -draw 'rectangle 88,242 101,252' \
    -draw 'path "M 40,14 q 20,26 0,34 q -20,-8 0,-34 Z"' -draw 'path "M 262,14 q 20,26 0,34 q -20,-8 0,-34 Z"' \
    -threshold 50% pbm:signDry.pbm
"$convert" -size 300x300 xc:white -fill black -stroke none \
    -draw "path 'M 76,14 L 224,14 C 234,110 204,158 164,172 L 164,250 L 210,264 L 210,286 L 90,286 L 90,264 L 136,250 L 136,172 C 96,158 66,110 76,14 Z'" \
    -fill white -draw 'polygon 160,14 132,66 164,84 138,130 182,76 150,60 176,14' -threshold 50% pbm:signFragile.pbm

# The plain (P1) form, which a text editor can write: slanted stripes that join at every edge, 64 by 64 dots.
{
    printf 'P1\n# slanted stripes; the job draws them again and again by "repeat"\n64 64\n'
    awk 'BEGIN { for (y = 0; y < 64; ++y) { line = ""; for (x = 0; x < 64; ++x) line = line ((x + y) % 64 < 32); print line } }'
} >stripe.pbm
