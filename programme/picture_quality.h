#pragma once

// How near coded pictures are to what was coded.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace gsve::programme {

struct PictureQuality {
    int64_t number = 0;  ///< of the picture in the source
    double psnr = 0;     ///< dB over all samples of the three planes; infinite where they are equal
    double ssim = 0;     ///< structural similarity of all planes, 1 where they are equal
};

/// Of a whole stream.
struct QualitySummary {
    double psnr = 0;        ///< dB of the mean squared error
    double least_psnr = 0;  ///< of the worst picture
    double ssim = 0;        ///< mean
    double least_ssim = 0;
    int64_t worst = 0;  ///< number of the picture with the least PSNR
};

/// `pictures` are not empty.
inline QualitySummary summary_of(const std::vector<PictureQuality>& pictures) {
    QualitySummary summary = {.psnr = 0,
                              .least_psnr = pictures.front().psnr,
                              .ssim = 0,
                              .least_ssim = pictures.front().ssim,
                              .worst = pictures.front().number};
    double error = 0;  // relative to the largest
    for (const PictureQuality& picture : pictures) {
        error += std::pow(10, -picture.psnr / 10);
        summary.ssim += picture.ssim / static_cast<double>(pictures.size());
        summary.least_ssim = std::min(summary.least_ssim, picture.ssim);
        if (picture.psnr >= summary.least_psnr) continue;
        summary.least_psnr = picture.psnr;
        summary.worst = picture.number;
    }
    summary.psnr = -10 * std::log10(error / static_cast<double>(pictures.size()));
    return summary;
}

}  // namespace gsve::programme
